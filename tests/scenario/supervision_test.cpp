// What becomes of services that end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "message/serialization.h"
#include "tests/support/raw_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

constexpr std::uint32_t kReady = 2;

// The packet in which a base service reports its state.
RawPacket StateReport(std::uint32_t state) {
  std::vector<ProcMgr::Serialization::PackedItem> packed;
  ProcMgr::Serialization::PieceList frames;
  EXPECT_TRUE(ProcMgr::Serialization::ProcMgrPackBaseServiceStateRequest({state}, packed));
  EXPECT_TRUE(ProcMgr::Serialization::ProcMgrCombinePiecesMsg(
      ProcMgr::Message::RequestType::BASESERVICE_STATE_REPORT, packed, frames));
  const char* const bytes = reinterpret_cast<const char*>(frames.data());
  return MakePacket(kRequest, 1, std::string(bytes, sizeof(ProcMgr::Message::RequestMsg)));
}

class Supervision : public ScenarioTest {
 protected:
  // Waits for the line that says why `name` ended, and yields it masked; the levels differ.
  std::string AwaitEnd(const std::string& name) {
    const auto index = log_.WaitFor("Process=" + name + ",");
    return index.has_value() ? MaskLine(log_.At(*index)) : "none";
  }
};

TEST_F(Supervision, KilledServiceReturnsAndKnowsIt) {
  const std::string report = "/run/sandbox/report";
  // The manager opens a channel to every service that it restarts, reporting or not.
  Boot({{"steady",
         kService,
         {"--serve", "steady", "--report", report},
         {{"restart", "on-failure"}}}});
  const ServiceReport first = AwaitReport(sandbox_, report);
  ASSERT_TRUE(log_.WaitFor("PROCMGR : EnableWatchDog flag=1").has_value());
  ASSERT_TRUE(log_.WaitFor("PROCMGR : STARTING to RUNNING appName=steady").has_value());
  EXPECT_EQ(first.Get("env.IS_RESTART"), "0");
  const std::string started =
      "6 [TRACE] Start baseApp success appName=steady, binPath=/opt/test/test-service, pid=#, "
      "isDelayCoreAffinity_=0";
  const std::vector<std::string> expected = {
      "6 PROCMGR : SetExitStatus steady, pid=#",
      "4 PROCMGR : Process=steady, pid=# terminated by calling Kill(), signal=9",
      "6 PROCMGR : RUNNING to TERMINATED appName=steady, pid=#",
      "4 PROCMGR: CheckThread : owner=steady, pid=#, state=TERMINATED unpexpectedly terminated.",
      "3 PROCMGR : Master ReportAppState failed: invalid fd, owner=iammgr",
      "3 PROCMGR : report steady's state: 4 to iammgr failed",
      "6 PROCMGR: CheckThread : owner=steady, pid=#, state=TERMINATED will restart now",
      "6 PROCMGR : Restarting process steady",
      started,
      "3 PROCMGR : Master ReportAppState failed: invalid fd, owner=iammgr",
      "3 PROCMGR : report steady's state: 0 to iammgr failed",
      "6 ********* PROCMGR : RegServiceCallBack success fd=1, targetProcName=steady",
      "6 PROCMGR: CheckThread : owner=steady, pid=#, state=STARTING restart success",
      "6 PROCMGR : STARTING to RUNNING appName=steady, pid=#",
  };
  const std::size_t before = log_.Lines().size();
  ASSERT_EQ(kill(first.Pid(), SIGKILL), 0);
  const ServiceReport second = AwaitReport(sandbox_, report, first.Pid());
  EXPECT_EQ(second.Get("env.IS_RESTART"), "1");
  const auto running = log_.WaitFor("PROCMGR : STARTING to RUNNING appName=steady", before);
  ASSERT_TRUE(running.has_value());
  EXPECT_EQ(log_.Masked(before, *running + 1), expected);
  EXPECT_TRUE(daemon_->Zombies().empty());
}

// The test plays the service's end of the channel, so that the service itself may die at will.
TEST_F(Supervision, ReturningServiceLeavesNoDescriptorAndNoThreadBehind) {
  const RawServer server(sandbox_, "steady", 0);
  Boot({{"steady", kService, {}, {{"isReporting", "true"}, {"restart", "on-forever"}}}});
  auto channel = server.AcceptGreeted();
  ASSERT_TRUE(channel.has_value());
  EXPECT_TRUE(log_.WaitFor("PROCMGR: waiting for baseApp=steady reported state").has_value());
  ASSERT_TRUE(channel->Send(StateReport(kReady)));
  ASSERT_TRUE(log_.WaitFor("InitBaseApp:steady success, report RUNNING!").has_value());
  ASSERT_TRUE(log_.WaitFor("PROCMGR : EnableWatchDog flag=1").has_value());
  const std::vector<std::string> descriptors = daemon_->Descriptors();
  const std::size_t threads = daemon_->ThreadCount();
  pid_t pid = AwaitStarted("steady");
  for (int i = 0; i < 5; ++i) {
    const std::size_t before = log_.Lines().size();
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(channel->AwaitClosed());
    channel = server.AcceptGreeted();
    ASSERT_TRUE(channel.has_value());
    ASSERT_TRUE(channel->Send(StateReport(kReady)));
    ASSERT_TRUE(log_.WaitFor("state=STARTING restart success", before).has_value());
    ASSERT_TRUE(log_.WaitFor("msg from steady report state=", before).has_value());
    pid = AwaitStarted("steady", before);
  }
  EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() == descriptors.size(); }))
      << ::testing::PrintToString(daemon_->Descriptors());
  EXPECT_EQ(daemon_->ThreadCount(), threads);
  EXPECT_TRUE(daemon_->Zombies().empty());
}

// The bring-up waits without a limit, but not for a service that has gone for good, and erasing
// the record of another service meanwhile must not move the one that it waits for.
TEST_F(Supervision, BootGoesOnWhenTheAwaitedServiceIsGoneForGood) {
  const RawServer server(sandbox_, "awaited", 0);
  Boot({{"aaa", kService, {"--exit-code", "0"}, {}},
        {"awaited", kService, {}, {{"isReporting", "true"}}},
        {"later", kService, {}, {}}});
  const auto channel = server.AcceptGreeted();
  ASSERT_TRUE(channel.has_value());
  ASSERT_TRUE(log_.WaitFor("PROCMGR: waiting for baseApp=awaited reported state").has_value());
  ASSERT_TRUE(
      log_.WaitFor("PROCMGR : Process aaa removed from the list of executedBaseApp_").has_value());
  ASSERT_EQ(kill(AwaitStarted("awaited"), SIGKILL), 0);
  AwaitBooted();
  EXPECT_EQ(log_.Count("InitBaseApp:awaited has been 4!"), 1U);
  EXPECT_EQ(log_.Count("Start baseApp success appName=later,"), 1U);
  EXPECT_TRUE(channel->AwaitClosed());
}

TEST_F(Supervision, PolicyDecidesWhoReturns) {
  const auto app = [&](const char* name, const char* policy) {
    return App{name, kService, {"--exit-code", "3"}, {{"restart", policy}}};
  };
  Boot({app("failing", "on-failure"), app("forever", "on-forever"), app("never", "no"),
        app("until", "on-until-succeed")});
  const auto restarts = [&](const std::string& name) {
    return log_.Count("PROCMGR : Restarting process " + name);
  };
  ASSERT_TRUE(log_.WaitFor("PROCMGR : Process failing removed from the list of executedBaseApp_")
                  .has_value());
  EXPECT_EQ(restarts("failing"), 5U);
  EXPECT_EQ(log_.Count("PROCMGR : Process=failing has restart 5 times in recent 60000 ms."), 1U);
  for (const std::string name : {"never", "until"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(
        log_.WaitFor("PROCMGR : Process " + name + " removed from the list of executedBaseApp_")
            .has_value());
    EXPECT_EQ(restarts(name), 0U);
  }
  // Well past the limit of the other policy.
  ASSERT_TRUE(Eventually([&] { return restarts("forever") >= 10; }));
  EXPECT_EQ(log_.Count("PROCMGR : Process=forever has restart"), 0U);
}

TEST_F(Supervision, EveryWayToEndHasItsLine) {
  struct Case {
    std::string name;
    std::vector<std::string> arguments;
    std::string line;  // Behind "LEVEL PROCMGR : Process=NAME, pid=# ".
    int level = 4;
  };
  const Case cases[] = {
      {"exit0", {"--exit-code", "0"}, "was self terminated, the exit status is 0."},
      {"exit7", {"--exit-code", "7"}, "was self terminated, the exit status is 7."},
      {"exit255", {"--exit-code", "255"}, "was self terminated, the exit status is 255."},
      {"abrt", {"--crash", "6"}, "terminated by calling abort(), signal=6"},
      {"ill", {"--crash", "4"}, "terminated by illegal instruction by signal=4"},
      {"trap", {"--crash", "5"}, "terminated by trap signal=5"},
      {"int", {"--crash", "2"}, "terminated by interrupt signal=2"},
      {"term", {"--crash", "15"}, "terminated by calling Term(), signal=15"},
      {"kill", {"--crash", "9"}, "terminated by calling Kill(), signal=9"},
      {"segv", {"--crash", "11"}, "got unexpected signal=11", 3},
      {"usr1", {"--crash", "10"}, "got unexpected signal=10", 3},
  };
  std::vector<App> apps;
  for (const Case& c : cases) {
    apps.push_back({c.name, kService, c.arguments, {}});
  }
  Boot(apps);
  for (const Case& c : cases) {
    EXPECT_EQ(AwaitEnd(c.name),
              std::to_string(c.level) + " PROCMGR : Process=" + c.name + ", pid=# " + c.line);
  }
  ASSERT_TRUE(log_.WaitForCount("removed from the list of executedBaseApp_", std::size(cases)));
  EXPECT_TRUE(daemon_->Services().empty());
  EXPECT_TRUE(daemon_->Zombies().empty());
}

TEST_F(Supervision, ExitCode125IsAnInputOutputError) {
  Boot({{"eio", kService, {"--exit-code", "125"}, {}},
        {"other", kService, {"--exit-code", "124"}, {}}});
  ASSERT_TRUE(log_.WaitForCount("removed from the list of executedBaseApp_", 2));
  const auto line = log_.WaitFor("terminated as input/output error");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(MaskLine(log_.At(*line)),
            "3 PROCMGR: appName=eio, pid=#, terminated as input/output error");
  EXPECT_EQ(log_.Count("terminated as input/output error"), 1U);
}

TEST_F(Supervision, VanishedProgramIsTriedAtEveryPass) {
  const std::string program = "/opt/test/vanishing";
  sandbox_.InstallProgram(ProgramPath("test-service"), program);
  Boot({{"gone", program, {"--serve", "gone"}, {{"restart", "on-forever"}}}});
  const pid_t pid = AwaitStarted("gone");
  ASSERT_TRUE(log_.WaitFor("PROCMGR : STARTING to RUNNING appName=gone").has_value());
  ASSERT_EQ(unlink(sandbox_.Outside(program).c_str()), 0);
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(log_.WaitForCount("PROCMGR : Restarting process : gone failed ", 3));
  EXPECT_GE(log_.Count("PROCMGR : Process gone got unexpected TERMINATED state"), 2U);
  // Once the program is back, so is the service.
  const std::size_t before = log_.Lines().size();
  sandbox_.InstallProgram(ProgramPath("test-service"), program);
  EXPECT_TRUE(log_.WaitFor("PROCMGR : STARTING to RUNNING appName=gone", before).has_value());
}

}  // namespace
}  // namespace PmTest
