// The bring-up's handshake with base services that report their state.

#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

// Everything from the start of the bring-up to its end, of two services of which one waits for
// the other.
const std::vector<std::string> kReportingBoot = {
    "6 [TRACE] InitBaseApplication begin, yaml path=/run/sandbox/base.yaml",
    "6 [TRACE] Start baseApp success appName=iammgr, binPath=/opt/test/test-service, pid=#, "
    "isDelayCoreAffinity_=0",
    "6 ********* PROCMGR : RegServiceCallBack success fd=1, targetProcName=iammgr",
    "6 Register heart beat checker for iammgr.",
    "6 PROCMGR: waiting for baseApp=iammgr reported state, RUNNING OR TERMINATING.",
    "6 [TRACE] PM revice BASESERVICE_STATE_REPORT msg from iammgr report state=INIT",
    "6 [TRACE] PM report appState to iammgr, appState=RUNNING_NORMAL_START, appName=PROCMGR, pid=#",
    "6 [TRACE] PM revice BASESERVICE_STATE_REPORT msg from iammgr report state=TERMINATING",
    "6 [TRACE] InitBaseApp:iammgr success, report RUNNING!",
    "6 PROCMGR : proc_launcher depends on iammgr [proc_launcher => iammgr]",
    "6 PROCMGR : proc_launcher's dependcy iammgr has been started",
    "6 [TRACE] Start baseApp success appName=proc_launcher, binPath=/opt/test/test-service, pid=#, "
    "isDelayCoreAffinity_=0",
    "6 [TRACE] PM report appState to iammgr, appState=RUNNING_NORMAL_START, appName=proc_launcher, "
    "pid=#",
    "6 PROCMGR : report proc_launcher's state: 0 to iammgr successfully",
    "6 ********* PROCMGR : RegServiceCallBack success fd=2, targetProcName=proc_launcher",
    "6 Register heart beat checker for proc_launcher.",
    "6 PROCMGR: waiting for baseApp=proc_launcher reported state, RUNNING OR TERMINATING.",
    "6 [TRACE] PM revice BASESERVICE_STATE_REPORT msg from proc_launcher report state=TERMINATING",
    "6 [TRACE] InitBaseApp:proc_launcher success, report RUNNING!",
    "6 [TRACE] InitBaseApplication end",
    "7 PROCMGR : EnableWatchDog flag=1",
};

class Handshake : public ScenarioTest {
 protected:
  void AwaitWaiting(const std::string& name, std::size_t from = 0) {
    ASSERT_TRUE(Await("PROCMGR: waiting for baseApp=" + name + " reported state", from));
  }
};

TEST_F(Handshake, WholeLogOfABootThatReports) {
  AgentPeer iammgr(sandbox_, "iammgr");
  AgentPeer launcher(sandbox_, "proc_launcher");
  Boot({Reporting("iammgr"), Reporting("proc_launcher", {{"dependList", "[iammgr]"}})});
  for (AgentPeer* const peer : {&iammgr, &launcher}) {
    ASSERT_TRUE(peer->AwaitChannel());
    AwaitWaiting(peer->Name());
    if (peer == &iammgr) {
      ASSERT_TRUE(iammgr.ReportState(kStateUp));
      ASSERT_EQ(iammgr.NextReports(1), std::vector<std::string>{"PROCMGR 0"});
      ASSERT_TRUE(Await("PM report appState to iammgr"));
    }
    ASSERT_TRUE(peer->ReportState(kStateReady));
  }
  const auto end = log_.WaitFor("PROCMGR : EnableWatchDog flag=");
  ASSERT_TRUE(end.has_value());
  const auto begin = log_.WaitFor("InitBaseApplication begin");
  std::vector<std::string> lines = log_.Masked(*begin, *end + 1);
  // Nobody beats here, which a machine that is slow enough has the time to notice.
  std::erase_if(lines, [](const std::string& line) {
    return line.find("Process heart beat notify") != std::string::npos;
  });
  EXPECT_EQ(lines, kReportingBoot);
}

// One boot in which every service but the first dies on its way, each at another moment.
TEST_F(Handshake, DeathAtAnyMomentHoldsNobodyUpAndLeavesNothing) {
  AgentPeer anchor(sandbox_, "a-anchor");
  const RawServer during(sandbox_, "c-during", 0);
  AgentPeer after(sandbox_, "d-after");
  AgentPeer going(sandbox_, "f-going");
  AgentPeer forever(sandbox_, "g-forever");
  App early = Reporting("b-early");
  App retried = Reporting("e-retried", {{"restart", "on-failure"}});
  early.arguments = retried.arguments = {"--exit-code", "3"};
  Boot({Reporting("a-anchor"), early, Reporting("c-during"), Reporting("d-after"), retried,
        Reporting("f-going"), Reporting("g-forever", {{"restart", "on-forever"}})});
  ASSERT_TRUE(anchor.AwaitChannel());
  AwaitWaiting("a-anchor");
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  ASSERT_TRUE(anchor.ReportState(kStateReady));

  // Nobody serves the name of "b-early": its end cuts the opening short.
  const auto accepted = during.Accept();
  ASSERT_TRUE(accepted.has_value());
  ASSERT_TRUE(Kill(AwaitStarted("c-during")));

  ASSERT_TRUE(after.AwaitChannel());
  AwaitWaiting("d-after");
  ASSERT_TRUE(Kill(AwaitStarted("d-after")));
  EXPECT_TRUE(after.AwaitClosed());
  EXPECT_TRUE(accepted->AwaitClosed());

  ASSERT_TRUE(going.AwaitChannel());
  AwaitWaiting("f-going");
  ExpectTold("PROCMGR : Restarting process e-retried", 5U);
  ASSERT_TRUE(going.ReportState(kStateGoingDown));
  ASSERT_TRUE(Await("InitBaseApp:f-going report TERMINATING!"));
  ASSERT_TRUE(Kill(AwaitStarted("f-going"), SIGTERM));
  ASSERT_TRUE(Await("PROCMGR : TERMINATING to TERMINATED appName=f-going"));

  // Two lives end before they report; the third ends the same wait.
  std::size_t from = 0;
  for (int life = 0; life < 2; ++life) {
    ASSERT_TRUE(forever.AwaitChannel());
    const pid_t pid = AwaitStarted("g-forever", from);
    from = log_.Lines().size();
    ASSERT_TRUE(Kill(pid));
    EXPECT_TRUE(forever.AwaitClosed());
  }
  ASSERT_TRUE(forever.AwaitChannel());
  ASSERT_TRUE(forever.ReportState(kStateReady));
  AwaitBooted();
  ExpectTold("InitBaseApp:g-forever success, report RUNNING!");
  EXPECT_TRUE(Await("PROCMGR : EnableWatchDog flag=0"));

  ASSERT_TRUE(log_.WaitForCount("removed from the list of executedBaseApp_", 5));
  // The service that went down by its own word takes its channel along.
  EXPECT_TRUE(going.AwaitClosed());
  // The channel of "g-forever" has come to stay.
  EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() == descriptors + 1; }))
      << descriptors << ::testing::PrintToString(daemon_->Descriptors());
  // The thread of an opening may have been on its way out when they were counted.
  EXPECT_TRUE(Eventually([&] { return daemon_->ThreadCount() <= threads; }));
  EXPECT_EQ(daemon_->Services().size(), 2U);
  EXPECT_TRUE(daemon_->AwaitReaped());
}

// The manager tells iammgr of itself when it comes up, and of everybody when it asks.
TEST_F(Handshake, IammgrHearsOfTheManagerAndOfEverybody) {
  AgentPeer iammgr(sandbox_, "iammgr");
  AgentPeer other(sandbox_, "other");
  Boot({Reporting("iammgr"), Reporting("other", {{"dependList", "[iammgr]"}}), Service("silent")});
  ASSERT_TRUE(iammgr.AwaitChannel());
  ASSERT_TRUE(iammgr.ReportState(kStateUp));
  const auto self = iammgr.NextReport();
  ASSERT_TRUE(self.has_value());
  EXPECT_EQ(self->pid, daemon_->Pid());
  ASSERT_TRUE(iammgr.ReportState(kStateReady));

  ASSERT_TRUE(other.AwaitChannel());
  // From anybody else the first two do nothing.
  for (const std::uint32_t state : {kStateUp, kStateReportAll, kStateReady}) {
    ASSERT_TRUE(other.ReportState(state));
  }
  AwaitBooted();
  std::map<std::string, pid_t> started = {{"other", AwaitStarted("other")},
                                          {"silent", AwaitStarted("silent")}};
  for (int i = 0; i < 2; ++i) {
    const auto report = iammgr.NextReport();
    ASSERT_TRUE(report.has_value());
    EXPECT_EQ(report->state, 0U);
    EXPECT_EQ(report->pid, started[report->appName]) << report->appName;
  }
  ASSERT_TRUE(iammgr.ReportState(kStateReportAll));
  // In the order of the starts, and nothing of iammgr itself.
  EXPECT_EQ(iammgr.NextReports(2), (std::vector<std::string>{"silent 0", "other 0"}));
  // What comes now answers the next event, so nothing was left over.
  ASSERT_TRUE(Kill(started["silent"]));
  EXPECT_EQ(iammgr.NextReports(1), std::vector<std::string>{"silent 4"});
  EXPECT_EQ(iammgr.PendingReports(), 0U);
  EXPECT_EQ(other.PendingReports(), 0U);
}

}  // namespace
}  // namespace PmTest
