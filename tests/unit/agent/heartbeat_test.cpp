// Beats as the manager's heartbeat socket gets them, and the thread that sends them.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <future>

#include "agent/process_manager_agent.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "sandbox/process_table.h"
#include "sandbox/socket_path.h"
#include "sandbox/system_error.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Result;
using std::chrono::milliseconds;

// The manager's side: one datagram at a time.
class BeatReceiver {
 public:
  explicit BeatReceiver(const Sandbox& sandbox)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string path = sandbox.Outside("/run/heartbeat.sock");
    std::filesystem::remove(path);
    const SocketPath address(path);
    CheckStep(bind(fd_.Get(), address.Get(), address.Size()) == 0, "listen for beats");
  }

  // The name in the next beat; "none" if none comes.
  [[nodiscard]] std::string Receive(milliseconds patience = kPatience) const {
    char text[128];
    ssize_t size = -1;
    const bool came = Eventually(
        [&] { return (size = recv(fd_.Get(), text, sizeof(text), MSG_DONTWAIT)) >= 0; }, patience);
    return came ? std::string(text, static_cast<std::size_t>(size)) : "none";
  }

 private:
  ProcMgr::UniqueFd fd_;
};

using AgentHeartbeat = AgentTest;

TEST_F(AgentHeartbeat, ABeatIsTheNameAndFindsAReceiverThatComesBack) {
  const auto agent = MakeAgent();
  EXPECT_EQ(agent->Beat(), Result::kNoReceiver);
  for (int round = 0; round < 2; ++round) {
    const BeatReceiver receiver(sandbox_);
    EXPECT_EQ(agent->Beat(), Result::kOk);
    EXPECT_EQ(receiver.Receive(), "svc");
  }
  EXPECT_EQ(agent->Beat(), Result::kNoReceiver);
}

TEST_F(AgentHeartbeat, ABeatThatFindsNoRoomWaitsForItHalfASecond) {
  const auto agent = MakeAgent();
  const BeatReceiver receiver(sandbox_);
  Result result = Result::kOk;
  ProcMgr::SteadyTime began{};
  for (int i = 0; i < 100'000 && result == Result::kOk; ++i) {
    began = ProcMgr::SteadyNow();
    result = agent->Beat();
  }
  EXPECT_EQ(result, Result::kBusy);
  EXPECT_GE(ProcMgr::SteadyNow() - began, milliseconds(450));
  // It goes as soon as there is room, whatever the wait has come to.
  auto beat = std::async(std::launch::async, [&] {
    while (agent->Beat() == Result::kBusy) {
    }
  });
  EXPECT_EQ(receiver.Receive(), "svc");
  beat.get();
}

TEST_F(AgentHeartbeat, TheThreadBeatsAndSendsHeartMessages) {
  const auto agent = MakeAgent();
  const BeatReceiver receiver(sandbox_);
  const FakeManager manager = Connect(*agent);
  for (const int period : {9, -1, 3'600'001}) {
    EXPECT_EQ(agent->StartHeartbeat({.period = milliseconds(period)}), Result::kInvalidArgument);
  }
  ASSERT_EQ(agent->StartHeartbeat({.period = milliseconds(10)}), Result::kOk);
  for (std::uint32_t index = 1; index <= 3; ++index) {
    EXPECT_EQ(receiver.Receive(), "svc");
    EXPECT_EQ(manager.ReceiveBody(8).substr(0, 8), Word(index) + Word(0));
  }
  // A second start takes the place of the first.
  ASSERT_EQ(agent->StartHeartbeat({.period = milliseconds(10), .heartMessages = false}),
            Result::kOk);
  while (manager.Peer().Receive(milliseconds(0)).has_value()) {
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(receiver.Receive(), "svc");
  }
  EXPECT_FALSE(manager.Peer().Receive(milliseconds(0)).has_value());
  agent->StopHeartbeat();
  while (receiver.Receive(milliseconds(0)) != "none") {
  }
  EXPECT_EQ(receiver.Receive(milliseconds(50)), "none");
}

// A signal of the process must find a thread of the service, never one of the library: four of the
// channel and one that beats.
TEST_F(AgentHeartbeat, EveryThreadOfTheLibraryBlocksSignals) {
  const auto agent = MakeAgent();
  ASSERT_EQ(agent->StartHeartbeat(), Result::kOk);
  int threads = 0;
  for (const pid_t thread : Threads(getpid())) {
    const std::string mask = StatusField(thread, "SigBlk");
    if (thread == getpid() || mask.empty()) {
      continue;  // The test's own, or one that has just ended.
    }
    const unsigned long long blocked = std::stoull(mask, nullptr, 16);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM}) {
      EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << thread << ", signal " << signal;
    }
    ++threads;
  }
  EXPECT_GE(threads, 5);
}

}  // namespace
}  // namespace PmTest
