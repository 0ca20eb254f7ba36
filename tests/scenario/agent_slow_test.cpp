// Agents that don't read, that stand still, that beat or fall silent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <memory>
#include <thread>

#include "base/unique_fd.h"
#include "sandbox/agent_peer.h"
#include "sandbox/socket_path.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

using ::testing::StartsWith;

class SlowAgent : public ScenarioTest {
 protected:
  // Sends one datagram as a service that beats does.
  void Beat(const std::string& name) {
    const ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const SocketPath address(sandbox_.Outside("/run/heartbeat.sock"));
    ASSERT_EQ(sendto(fd.Get(), name.data(), name.size(), 0, address.Get(), address.Size()),
              static_cast<ssize_t>(name.size()));
  }
};

// An access manager that stands still takes no reports. Each costs its sender the retries and no
// more, and whoever is owed one too gets it.
TEST_F(SlowAgent, ReaderThatStandsStillDelaysNobodyForGood) {
  const RawServer deaf(sandbox_, "iammgr", 0);
  AgentPeer owner(sandbox_, "owner");
  Boot({Reporting("iammgr"), Reporting("owner", {{"restart", "on-forever"}})});
  const auto iammgr = deaf.AcceptGreeted();
  ASSERT_TRUE(iammgr.has_value());
  ASSERT_TRUE(iammgr->Send(FramePacket(StateFrame(kStateReady))));
  ASSERT_TRUE(owner.BecomeReady());
  AwaitBooted();
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  const std::string full = "PROCMGR : Master SendRequestMsg failed, err code=-11,";
  // Every request makes one report to both; the queue holds some hundreds at the very most.
  int sent = 0;
  while (log_.Count(full) == 0) {
    ASSERT_LT(sent, 5000) << "the queue never fills";
    ASSERT_TRUE(owner.TermApps({"nobody" + std::to_string(sent)}));
    ++sent;
    ASSERT_EQ(owner.NextReports(1).size(), 1U);
  }
  EXPECT_TRUE(Await("PROCMGR : CheckThread : report general apps' changes to IAM failed"));

  // The owner's next request is under way, waiting for iammgr, when its process dies: closing its
  // channel has to come to an end, and the service comes back.
  const std::size_t before = log_.Lines().size();
  const pid_t pid = AwaitStarted("owner");
  ASSERT_TRUE(owner.TermApps({"last"}));
  ASSERT_TRUE(Await("TERM_APP msg from owner, appList=last,", before));
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(owner.BecomeReady());
  ASSERT_TRUE(Await(
      "PROCMGR: CheckThread : owner=owner, pid=" + std::to_string(AwaitStarted("owner", before)) +
          ", state=STARTING restart success",
      before));
  EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() == descriptors; }))
      << ::testing::PrintToString(daemon_->Descriptors());
  EXPECT_EQ(daemon_->ThreadCount(), threads);
}

TEST_F(SlowAgent, LostAndRecoveredHeartbeatsReachTheSensor) {
  AgentPeer iammgr(sandbox_, "iammgr");
  Boot({Reporting("iammgr")});
  ASSERT_TRUE(iammgr.BecomeReady());
  AwaitBooted();
  Beat("iammgr");
  Beat("nobody");
  const std::string lost =
      "Process heart beat notify. (app=iammgr,pid=" + std::to_string(getpid()) + ",status=lost)";
  const auto loss = log_.WaitFor(lost);
  ASSERT_TRUE(loss.has_value());
  EXPECT_TRUE(AwaitSensor("iammgr", "0"));
  Beat("iammgr");
  ASSERT_TRUE(Await("status=recovery)", *loss));
  EXPECT_TRUE(AwaitSensor("iammgr", "2"));
  // Told once each, and the process has been left alone. On a machine that is slow enough the wait
  // for the first beat may have been told before.
  EXPECT_EQ(log_.Count(lost), 1U);
  EXPECT_EQ(CountLines(log_.Masked(*loss), "status=recovery"), 1U);
  EXPECT_EQ(log_.Count("PROCMGR : Restarting"), 0U);
}

TEST_F(SlowAgent, HeartMessagesTellOfLossAndDelay) {
  AgentPeer beater(sandbox_, "beater");
  Boot({Reporting("beater")});
  ASSERT_TRUE(beater.BecomeReady());
  AwaitBooted();
  const std::string lost = "PROCMGR : beater lost heart msg, index is ";
  for (const std::uint64_t index : {1U, 2U, 4U, 5U, 5U, 1U, 2U}) {
    ASSERT_TRUE(beater.Send(HeartFrame(index)));
  }
  // One that was sent long ago.
  auto late = HeartFrame(3);
  const std::uint64_t longAgo = 1;
  (void)std::string_view(reinterpret_cast<const char*>(&longAgo), sizeof(longAgo))
      .copy(late.data + 8, sizeof(longAgo));
  ASSERT_TRUE(beater.Send(late));
  const auto slow = log_.WaitFor(" - 1 = ");
  ASSERT_TRUE(slow.has_value());
  EXPECT_THAT(log_.At(*slow).text, StartsWith("PROCMGR : beater send nexiom cost time "));
  for (const char* const indices : {"2 / 4", "5 / 5", "5 / 1"}) {
    EXPECT_EQ(log_.Count(lost + indices), 1U) << indices;
  }
  EXPECT_EQ(log_.Count(lost), 3U);
}

TEST_F(SlowAgent, ThousandsOfFramesOfSeveralAgentsKeepTheirOrder) {
  constexpr int kAgents = 4;
  constexpr std::uint64_t kFrames = 3000;
  std::vector<std::unique_ptr<AgentPeer>> agents;
  std::vector<App> apps;
  for (int i = 0; i < kAgents; ++i) {
    const std::string name = "agent" + std::to_string(i);
    agents.push_back(std::make_unique<AgentPeer>(sandbox_, name));
    apps.push_back(Reporting(name));
  }
  Boot(apps);
  for (const auto& agent : agents) {
    ASSERT_TRUE(agent->BecomeReady());
  }
  AwaitBooted();
  std::vector<std::thread> senders;
  for (const auto& agent : agents) {
    senders.emplace_back([&agent] {
      for (std::uint64_t i = 1; i <= kFrames; ++i) {
        EXPECT_TRUE(agent->Send(HeartFrame(i)));
      }
      // The gap makes the manager name the last index that it has seen.
      EXPECT_TRUE(agent->Send(HeartFrame(kFrames + 2)));
    });
  }
  for (std::thread& sender : senders) {
    sender.join();
  }
  for (const auto& agent : agents) {
    EXPECT_TRUE(Await("PROCMGR : " + agent->Name() + " lost heart msg, index is " +
                      std::to_string(kFrames) + " / " + std::to_string(kFrames + 2)));
  }
  EXPECT_EQ(log_.Count(" lost heart msg, "), std::size_t{kAgents});
}

}  // namespace
}  // namespace PmTest
