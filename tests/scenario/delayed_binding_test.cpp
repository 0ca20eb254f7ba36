// The delayed core binding and the way back, thread by thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "core/delayed_binding.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

class DelayedBinding : public ScenarioTest {
 protected:
  // Both cores are control cores, so that an unbound child and one that is back on the default
  // cores run on both.
  void SetUp() override {
    if (std::thread::hardware_concurrency() < 2) {
      GTEST_SKIP() << "needs two cores to tell masks apart";
    }
    sandbox_.MakePlatformGroups("0-1");
    sandbox_.InstallProgram(ProgramPath("test-service"), kService);
  }

  void BootDelayed(const std::string& settings) {
    sandbox_.WriteFile(std::string(kConfigDir) + "procmgr_cfg.yaml",
                       "delay_core: {" + settings + "}\n");
    Boot({Service(
        "late", {"--threads", "2", "--report", "/run/sandbox/late"},
        {{"isDelayCoreAffinity", "true"}, {"coreAffinity", "[0]"}, {"cpuset", "CtrlCPU"}})});
    pid_ = AwaitReport(sandbox_, "/run/sandbox/late").Pid();
    AwaitBooted();
    ASSERT_TRUE(Eventually([this] { return Threads(pid_).size() == 3; }));
  }

  [[nodiscard]] bool AllOn(const std::string& cores) const {
    const std::vector<pid_t> tids = Threads(pid_);
    return std::all_of(tids.begin(), tids.end(),
                       [&](pid_t tid) { return StatusField(tid, "Cpus_allowed_list") == cores; });
  }

  void Signal(int signal) { ASSERT_EQ(kill(daemon_->Pid(), signal), 0); }

  pid_t pid_ = 0;
};

TEST_F(DelayedBinding, RequestBindsEveryThreadOnceAndForAll) {
  BootDelayed("check_num: 3, wake_up_enable: false, check_interval: 1");
  EXPECT_TRUE(AllOn("0-1"));
  Signal(ProcMgr::BindingSignal());
  ASSERT_TRUE(Await("PROCMGR: CheckCoreAffinityThread exit now."));
  EXPECT_TRUE(AllOn("0"));
  EXPECT_TRUE(
      Await("CheckCoreAffinityThread wakeup,checkInterval=1,checkNum=3,"
            "isWakeUpEnable=0"));
  Signal(ProcMgr::BindingSignal());
  EXPECT_TRUE(Await("SetDelayCoreAffinity return directly"));
  EXPECT_TRUE(daemon_->IsRunning());
}

TEST_F(DelayedBinding, WakeUpBringsTheDefaultCoresBackAndAllowsTheNextRequest) {
  BootDelayed("check_num: 2, wake_up_enable: true, check_interval: 0");
  Signal(ProcMgr::BindingSignal());
  ASSERT_TRUE(Await("CheckCoreAffinityThread finish check"));
  EXPECT_TRUE(AllOn("0"));
  Signal(ProcMgr::WakeUpSignal());
  ASSERT_TRUE(Await("WakeUpRecover success"));
  EXPECT_TRUE(Await("Reset Core Affinity to CpuSet for delay apps, ret=1"));
  EXPECT_TRUE(AllOn("0-1"));
  Signal(ProcMgr::BindingSignal());
  EXPECT_TRUE(Eventually([this] { return AllOn("0"); }));
}

// The record of a service that can't come back keeps a pid that may be a stranger's by now.
TEST_F(DelayedBinding, ProcessThatHasEndedIsNotBound) {
  Boot({{"late",
         kService,
         {"--report", "/run/sandbox/late"},
         {{"isDelayCoreAffinity", "true"}, {"coreAffinity", "[0]"}, {"restart", "on-forever"}}}});
  pid_ = AwaitReport(sandbox_, "/run/sandbox/late").Pid();
  AwaitBooted();
  ASSERT_EQ(unlink(sandbox_.Outside(kService).c_str()), 0);
  ASSERT_EQ(kill(pid_, SIGKILL), 0);
  ASSERT_TRUE(log_.WaitFor("state=TERMINATED restart failed").has_value());
  Signal(ProcMgr::BindingSignal());
  ASSERT_TRUE(log_.WaitFor("CheckCoreAffinityThread finish check").has_value());
  EXPECT_EQ(log_.Count("delayed core binding failed"), 0U);
  EXPECT_EQ(log_.Count("BindCoreForDelayApp failed"), 0U);
}

}  // namespace
}  // namespace PmTest
