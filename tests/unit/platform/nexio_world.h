// Where the messaging library is tested: a sandbox for the whole program, and what records
// callbacks.
#ifndef TESTS_UNIT_PLATFORM_NEXIO_WORLD_H
#define TESTS_UNIT_PLATFORM_NEXIO_WORLD_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/mutex.h"
#include "message/nexio.h"
#include "tests/support/log_reader.h"
#include "tests/support/raw_peer.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"

namespace PmTest {

// The program's sandbox; the main thread, and the library's threads with it, are inside.
const Sandbox& Box();
const LogReader& Log();

// What callbacks have been told, in their order.
class Recorder {
 public:
  struct Event {
    int fd = 0;
    std::uint32_t seq = 0;
    std::optional<std::string> data;  // None: the null request.
  };

  void Add(int fd, const ProcMgr::NexioRequest* request) EXCLUDES(mutex_);
  [[nodiscard]] ProcMgr::NexioRequestCallback Callback() {
    return [this](int fd, const ProcMgr::NexioRequest* request) { Add(fd, request); };
  }
  // Waits for at least `count` events and yields all; fewer if they don't come.
  [[nodiscard]] std::vector<Event> Await(std::size_t count) const EXCLUDES(mutex_);

 private:
  mutable ProcMgr::Mutex mutex_;
  mutable ProcMgr::CondVar added_;
  std::vector<Event> events_ GUARDED_BY(mutex_);
};

// A gate that callbacks wait at until a test opens it.
class Gate {
 public:
  void Pass() EXCLUDES(mutex_);
  void Open() EXCLUDES(mutex_);
  // Waits until `count` threads have come to the gate.
  [[nodiscard]] bool AwaitArrivals(int count) const EXCLUDES(mutex_);

 private:
  mutable ProcMgr::Mutex mutex_;
  mutable ProcMgr::CondVar changed_;
  bool open_ GUARDED_BY(mutex_) = false;
  int arrivals_ GUARDED_BY(mutex_) = 0;
};

// A server that answers every request with its own data, unless told otherwise.
class EchoServer {
 public:
  explicit EchoServer(const std::string& name, ProcMgr::NexioRequestCallback callback = nullptr,
                      std::uint32_t maxClients = 1000);
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  [[nodiscard]] int Handle() const { return handle_; }
  static void Echo(int fd, const ProcMgr::NexioRequest* request);

 private:
  int handle_ = 0;
};

// NexioOpen to a server of this process's group.
[[nodiscard]] int OpenTo(const std::string& name, ProcMgr::NexioRequestCallback callback = nullptr,
                         std::chrono::milliseconds timeout = kPatience);
// Closes, waiting for a callback that is just running. False if it wasn't open.
[[nodiscard]] bool Close(int fd);
[[nodiscard]] int SendText(int fd, const std::string& text);
// NexioRPCSync; the result as text, or "error N".
[[nodiscard]] std::string Ask(int fd, const std::string& text);

// How many descriptors this process has open.
[[nodiscard]] std::size_t DescriptorCount();
// The descriptors that this process has opened itself and that a child would inherit, as
// "N -> TARGET".
[[nodiscard]] std::vector<std::string> LeakyDescriptors();

}  // namespace PmTest

#endif  // TESTS_UNIT_PLATFORM_NEXIO_WORLD_H
