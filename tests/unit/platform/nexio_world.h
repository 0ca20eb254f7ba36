// Where the messaging library is tested: a sandbox for the whole program, and what stands at either
// end of a channel.
#ifndef TESTS_UNIT_PLATFORM_NEXIO_WORLD_H
#define TESTS_UNIT_PLATFORM_NEXIO_WORLD_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "message/nexio.h"
#include "sandbox/log_reader.h"
#include "sandbox/raw_peer.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"
#include "tests/support/threads.h"

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

// The program's sandbox; the main thread, and the library's threads with it, are inside.
const Sandbox& Box();
const LogReader& Log();
// The descriptors that the program was started with, as OpenDescriptors yields them.
const std::vector<std::string>& InheritedDescriptors();

// A callback that tells the data of each request, and "end" for the null request.
[[nodiscard]] ProcMgr::NexioRequestCallback Into(LineRecorder& told);

// A server that answers every request with its own data.
class EchoServer {
 public:
  explicit EchoServer(const std::string& name,
                      ProcMgr::NexioConnectCallback connectCallback = nullptr,
                      std::uint32_t maxClients = 1000);
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

 private:
  int handle_ = 0;
};

// NexioOpen to a server of this process's group.
[[nodiscard]] int OpenTo(const std::string& name, ProcMgr::NexioRequestCallback callback = nullptr,
                         std::chrono::milliseconds timeout = kPatience);
// Closes, waiting for a callback that is just running. False if it wasn't open.
[[nodiscard]] bool Close(int fd);
[[nodiscard]] ProcMgr::NexioRequest RequestOf(const std::string& text);
[[nodiscard]] int SendText(int fd, const std::string& text);
// NexioRPCSync; the result as text, or "error N".
[[nodiscard]] std::string Ask(int fd, const std::string& text);

// A channel that is open from its construction, and closed in the end at the latest.
struct Channel {
  explicit Channel(const std::string& name, ProcMgr::NexioRequestCallback callback = nullptr);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  const int fd;
};

// The same, to a peer by hand that has read its hello.
struct RawChannel {
  explicit RawChannel(const std::string& name, ProcMgr::NexioRequestCallback callback = nullptr);

  void Request(std::uint32_t sequence, const std::string& text) const {
    EXPECT_TRUE(peer.Send(MakePacket(kRequest, sequence, text)));
  }

  RawServer server;
  Channel channel;
  const int fd = channel.fd;
  RawPeer peer;
};

// How many descriptors this process has open.
[[nodiscard]] std::size_t DescriptorCount();

}  // namespace PmTest

#endif  // TESTS_UNIT_PLATFORM_NEXIO_WORLD_H
