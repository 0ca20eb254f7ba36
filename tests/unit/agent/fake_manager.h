// The manager's side of a channel, written by hand, and a place where an agent can serve.
#ifndef TESTS_UNIT_AGENT_FAKE_MANAGER_H
#define TESTS_UNIT_AGENT_FAKE_MANAGER_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "agent/process_manager_agent.h"
#include "sandbox/raw_peer.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"

namespace ProcMgr {

// For the messages of failed tests.
inline void PrintTo(Result result, std::ostream* out) {
  *out << ToText(result);
}

}  // namespace ProcMgr

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

// A number of a binary body.
inline std::string Word(std::size_t value) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    bytes.push_back(static_cast<char>(value >> (8 * i)));
  }
  return bytes;
}

// The 16 bits at `at`, as far as the small numbers of these tests go.
inline std::size_t Number(const std::string& bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes.at(at)) +
         std::size_t{256} * static_cast<unsigned char>(bytes.at(at + 1));
}

// The bytes of a frame: type, 4 bytes of nothing, size, 3964 bytes of body, 4 bytes of nothing.
inline std::string FrameBytes(std::uint32_t type, const std::string& body) {
  std::string bytes = Word(type) + Word(0) + Word(body.size()) + Word(0) + body;
  bytes.resize(3984);
  return bytes;
}

class FakeManager {
 public:
  // Connects to the service and says hello.
  FakeManager(const Sandbox& sandbox, const std::string& service)
      : FakeManager(ConnectRaw(sandbox, service).value()) {}
  explicit FakeManager(RawPeer peer) : peer_(std::move(peer)) {
    (void)peer_.Send(MakePacket(kHello, 0, "PROCMGR"));
  }

  [[nodiscard]] const RawPeer& Peer() const { return peer_; }
  void Close() { peer_.Close(); }

  void Send(std::uint32_t type, const std::string& body) const {
    EXPECT_TRUE(Peer().Send(MakePacket(kRequest, 7, FrameBytes(type, body))));
  }

  // The next frame of the service; a failure and an empty packet if none comes.
  [[nodiscard]] RawPacket Receive() const {
    std::optional<RawPacket> packet = Peer().Receive();
    EXPECT_TRUE(packet.has_value()) << "no frame came from the service";
    return packet.value_or(RawPacket{});
  }

  // The text of the next frame's body, after a check of everything around it.
  [[nodiscard]] std::string ReceiveBody(std::uint32_t type) const {
    const RawPacket packet = Receive();
    EXPECT_EQ(packet.kind, kRequest);
    EXPECT_EQ(packet.data.size(), 3984U);
    if (packet.data.size() != 3984) {
      return {};
    }
    std::string body = packet.data.substr(16, Number(packet.data, 8));
    EXPECT_EQ(packet.data, FrameBytes(type, body));
    return body;
  }

 private:
  RawPeer peer_;
};

// The test's thread stands in a sandbox with a /run of its own.
class AgentTest : public testing::Test {
 protected:
  // Serves `name`; the callbacks may be left out.
  std::unique_ptr<ProcMgr::Agent> MakeAgent(ProcMgr::Agent::Callbacks callbacks = {},
                                            const std::string& name = "svc") {
    std::unique_ptr<ProcMgr::Agent> agent;
    EXPECT_EQ(ProcMgr::Agent::Create({name, std::move(callbacks)}, agent), ProcMgr::Result::kOk);
    return agent;
  }

  // Connects to an agent without a channel, or whose channel is just closing, and waits until it
  // has noticed.
  FakeManager Connect(ProcMgr::Agent& agent) {
    EXPECT_TRUE(Eventually([&] { return !agent.IsConnected(); }));
    FakeManager manager(sandbox_, agent.Name());
    EXPECT_EQ(agent.WaitConnected(kPatience), ProcMgr::Result::kOk);
    return manager;
  }

  Sandbox sandbox_;
  Sandbox::Inside inside_{sandbox_};
};

}  // namespace PmTest

#endif  // TESTS_UNIT_AGENT_FAKE_MANAGER_H
