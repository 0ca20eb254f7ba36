// Beats as the manager's heartbeat socket gets them, and the thread that sends them.
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <future>

#include "agent/process_manager_agent.h"
#include "base/steady_time.h"
#include "sandbox/process_table.h"
#include "tests/unit/agent/beat_receiver.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Result;
using std::chrono::milliseconds;

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
