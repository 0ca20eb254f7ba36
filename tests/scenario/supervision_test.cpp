// What becomes of services that end.

#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

class Supervision : public ScenarioTest {};

TEST_F(Supervision, KilledServiceReturnsAndKnowsIt) {
  const std::string report = "/run/sandbox/report";
  // The manager opens a channel to every service that it restarts, reporting or not.
  Boot({Service("steady", {"--serve", "steady", "--report", report}, {{"restart", "on-failure"}})});
  const ServiceReport first = AwaitReport(sandbox_, report);
  ASSERT_TRUE(Await("PROCMGR : EnableWatchDog flag=1"));
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=steady"));
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
  };
  const std::size_t before = log_.Lines().size();
  ASSERT_TRUE(Kill(first.Pid()));
  const ServiceReport second = AwaitReport(sandbox_, report, first.Pid());
  EXPECT_EQ(second.Get("env.IS_RESTART"), "1");
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=steady", before));
  ASSERT_TRUE(Await("state=STARTING restart success", before));
  std::vector<std::string> lines = log_.Masked(before, log_.Lines().size());
  // The channel opens beside the pass that sees the process up.
  EXPECT_EQ(std::erase(lines, "6 PROCMGR : STARTING to RUNNING appName=steady, pid=#"), 1U);
  EXPECT_EQ(lines, expected);
  EXPECT_TRUE(daemon_->AwaitReaped());
}

// Without waiting for the end of a pause: half of one, 15 ms, lies between the two settings.
TEST_F(Supervision, ImmediateReactionIsTheFasterOne) {
  const auto medianAway = [this](const std::string& settings) {
    sandbox_.WriteSettings(settings);
    const std::size_t booting = log_.Lines().size();
    Boot({Service("stays"), Service("steady", {"--serve", "steady"}, {{"restart", "on-forever"}})});
    pid_t pid = AwaitStarted("steady", booting);
    std::vector<ProcMgr::SteadyTime::duration> away;
    for (int i = 0; i < 25; ++i) {
      const std::size_t before = log_.Lines().size();
      const ProcMgr::SteadyTime killed = ProcMgr::SteadyNow();
      EXPECT_TRUE(Kill(pid));
      const auto back = log_.WaitFor("Start baseApp success appName=steady,", before);
      const auto isOver = [](const LogLine& line) {  // On a slow machine it serves too late.
        return line.text.ends_with("state=STARTING restart success") ||
               line.text.ends_with("procname=steady RegisterService failed");
      };
      if (!back.has_value() || !log_.WaitFor(isOver, before).has_value()) {
        ADD_FAILURE() << "it doesn't come back";
        break;
      }
      away.push_back(log_.At(*back).at - killed);
      pid = AwaitStarted("steady", before);
    }
    daemon_.reset();
    std::sort(away.begin(), away.end());
    return away[away.size() / 2];
  };
  const auto atPasses = medianAway("supervision:\n  reaction: pass\n");
  EXPECT_LT(medianAway("supervision:\n  reaction: immediate\n"), atPasses);
}

// The bring-up waits without a limit, but not for a service that has gone for good, and erasing
// the record of another service meanwhile must not move the one that it waits for.
TEST_F(Supervision, BootGoesOnWhenTheAwaitedServiceIsGoneForGood) {
  AgentPeer awaited(sandbox_, "awaited");
  Boot({Service("aaa", {"--exit-code", "0"}), Reporting("awaited"), Service("later")});
  ASSERT_TRUE(awaited.AwaitChannel());
  ASSERT_TRUE(Await("PROCMGR: waiting for baseApp=awaited reported state"));
  ASSERT_TRUE(Await("PROCMGR : Process aaa removed from the list of executedBaseApp_"));
  ASSERT_TRUE(Kill(AwaitStarted("awaited")));
  AwaitBooted();
  ExpectTold("InitBaseApp:awaited has been 4!");
  ExpectTold("Start baseApp success appName=later,");
  EXPECT_TRUE(awaited.AwaitClosed());
}

TEST_F(Supervision, PolicyDecidesWhoReturns) {
  const auto app = [&](const char* name, const char* policy, const char* code = "3") {
    return Service(name, {"--exit-code", code}, {{"restart", policy}});
  };
  Boot({app("failing", "on-failure"), app("forever", "on-forever"), app("never", "no", "125"),
        app("until", "on-until-succeed")});
  const auto restarts = [&](const std::string& name) {
    return log_.Count("PROCMGR : Restarting process " + name);
  };
  const auto awaitRemoved = [&](const std::string& name) {
    return Await("PROCMGR : Process " + name + " removed from the list of executedBaseApp_");
  };
  ASSERT_TRUE(awaitRemoved("failing"));
  EXPECT_EQ(restarts("failing"), 5U);
  ExpectTold("PROCMGR : Process=failing has restart 5 times in recent 60000 ms.");
  for (const std::string name : {"never", "until"}) {
    ASSERT_TRUE(awaitRemoved(name)) << name;
    EXPECT_EQ(restarts(name), 0U);
  }
  const std::vector<std::string> lines = log_.Masked();
  EXPECT_EQ(CountLines(lines, "3 PROCMGR: appName=never, pid=#, terminated as input/output error"),
            1U);
  EXPECT_EQ(CountLines(lines, "terminated as input/output error"), 1U);
  // Well past the limit of the other policy.
  ASSERT_TRUE(Eventually([&] { return restarts("forever") >= 10; }));
  EXPECT_EQ(log_.Count("PROCMGR : Process=forever has restart"), 0U);
}

TEST_F(Supervision, VanishedProgramIsTriedAtEveryPass) {
  const std::string program = "/opt/test/vanishing";
  sandbox_.InstallProgram(ProgramPath("test-service"), program);
  Boot({{"gone", program, {"--serve", "gone"}, {{"restart", "on-forever"}}}});
  const pid_t pid = AwaitStarted("gone");
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=gone"));
  ASSERT_EQ(unlink(sandbox_.Outside(program).c_str()), 0);
  ASSERT_TRUE(Kill(pid));
  ASSERT_TRUE(log_.WaitForCount("PROCMGR : Restarting process : gone failed ", 3));
  EXPECT_GE(log_.Count("PROCMGR : Process gone got unexpected TERMINATED state"), 2U);
  // Once the program is back, so is the service.
  const std::size_t before = log_.Lines().size();
  sandbox_.InstallProgram(ProgramPath("test-service"), program);
  EXPECT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=gone", before));
}

// Thousand may take a slow machine minutes. The exit of a service that ends at once may come before
// its record is in the list.
TEST_F(Supervision, ThousandServicesThatEndAtOnceAreAllSeen) {
  constexpr std::size_t kServices = 1000;
  std::vector<App> apps;
  for (std::size_t i = 0; i < kServices; ++i) {
    apps.push_back({"true" + std::to_string(i), "/bin/true", {}, {}});
  }
  Boot(apps);
  EXPECT_TRUE(
      log_.WaitForCount("removed from the list of executedBaseApp_", kServices, 5 * kPatience));
  EXPECT_EQ(log_.Count("PROCMGR: can not find app"), 0U);
  ExpectTold("the exit status is 0.", kServices);
  EXPECT_TRUE(daemon_->Services().empty());
  EXPECT_TRUE(daemon_->AwaitReaped());
}

}  // namespace
}  // namespace PmTest
