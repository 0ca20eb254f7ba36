// Where the manager and its children really are: groups, cores, limits, thread by thread, from the
// start or by a later request.
#include "base/small_file.h"
#include "core/platform_events.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

constexpr const char* kReport = "/run/sandbox/report";

// The group of a thread in a hierarchy, from the root of the sandbox's groups or above.
std::string GroupOf(pid_t pid, pid_t tid, const std::string& hierarchy) {
  std::string text;
  const std::string path =
      "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/cgroup";
  EXPECT_EQ(ProcMgr::ReadSmallFile(path, ProcMgr::kConfigFileLimit, text), 0) << path;
  const std::string label = ":" + hierarchy + ":";
  const std::size_t at = text.find(label);
  return at == std::string::npos
             ? "none"
             : text.substr(at + label.size(), text.find('\n', at) - at - label.size());
}

std::string CoresOf(pid_t pid, pid_t tid) {
  // A thread's own number shows its status, too.
  EXPECT_EQ(StatusField(tid, "Tgid"), std::to_string(pid));
  return StatusField(tid, "Cpus_allowed_list");
}

// Leaves the groups to the test: many of these want others than the platform's, or none.
class Placement : public ScenarioTest {
 protected:
  void SetUp() override { sandbox_.InstallProgram(ProgramPath("test-service"), kService); }

  static bool HasTwoCores() { return std::thread::hardware_concurrency() >= 2; }

  void ExpectPlaced(pid_t pid, const std::string& resGroup, const std::string& cpuset,
                    const std::string& cores) {
    for (const pid_t tid : Threads(pid)) {
      SCOPED_TRACE("thread " + std::to_string(tid) + " of " + std::to_string(pid));
      EXPECT_THAT(GroupOf(pid, tid, "cpu"), EndsWith(resGroup));
      EXPECT_THAT(GroupOf(pid, tid, "memory"), EndsWith(resGroup));
      EXPECT_THAT(GroupOf(pid, tid, "cpuset"), EndsWith(cpuset));
      EXPECT_EQ(CoresOf(pid, tid), cores);
    }
  }
};

TEST_F(Placement, EveryThreadOfTheManagerIsInThePlatformsGroups) {
  sandbox_.MakePlatformGroups("0");
  Boot({Service("plain")});
  (void)AwaitBoot();
  ASSERT_TRUE(Await("PROCMGR : EnableWatchDog flag="));
  EXPECT_GE(daemon_->ThreadCount(), 4U);
  ExpectPlaced(daemon_->Pid(), "/OTHER", "/CtrlCPU", "0");
  EXPECT_EQ(log_.Count("Add pm tids to cgroup tasks failed"), 0U);
}

TEST_F(Placement, ChildrenStandWhereTheirManifestsSay) {
  sandbox_.MakePlatformGroups("0");
  sandbox_.MakeGroup("cpu", "cameras");
  sandbox_.MakeGroup("memory", "cameras");
  sandbox_.MakeCpuset("video", "0");
  Boot({Service("deep", {"--threads", "3", "--report", kReport},
                {{"resGroupName", "cameras"}, {"cpuset", "video"}, {"coreAffinity", "[0]"}}),
        // Names that lead out of the hierarchy are passed over, and only they.
        Service("sly", {"--report", "/run/sandbox/sly"},
                {{"resGroupName", "cameras/../cameras"}, {"cpuset", "video"}})});
  const ServiceReport deep = AwaitReport(sandbox_, kReport);
  ASSERT_EQ(Threads(deep.Pid()).size(), 4U);
  ExpectPlaced(deep.Pid(), "/cameras", "/video", "0");
  const ServiceReport sly = AwaitReport(sandbox_, "/run/sandbox/sly");
  // What isn't placed stays where the manager was when it forked.
  ExpectPlaced(sly.Pid(), "/OTHER", "/video", "0");
  (void)AwaitBoot();
  EXPECT_EQ(log_.Count("pm revice child process errinfo"), 0U);
}

TEST_F(Placement, MissingGroupsAreToldAndTheServiceRunsAllTheSame) {
  sandbox_.MakePlatformGroups("0");
  sandbox_.MakeGroup("cpu", "half");
  struct Case {
    std::string name, resGroup, cpuset, missing;
  };
  const Case cases[] = {
      {"cpu", "nowhere", "CtrlCPU", "cpu cgroup path=/sys/fs/cgroup/cpu/nowhere"},
      // Neither hierarchy is written if one of them lacks the group.
      {"memory", "half", "CtrlCPU", "mem cgroup path=/sys/fs/cgroup/memory/half"},
      {"cpuset", "OTHER", "nowhere", "cpuset cgroup path=/sys/fs/cgroup/cpuset/nowhere"},
  };
  std::vector<App> apps;
  for (const Case& c : cases) {
    apps.push_back(Service(c.name, {"--report", "/run/sandbox/" + c.name},
                           {{"resGroupName", c.resGroup}, {"cpuset", c.cpuset}}));
  }
  Boot(apps);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ServiceReport report = AwaitReport(sandbox_, "/run/sandbox/" + c.name);
    EXPECT_TRUE(AwaitMessage("app=" + c.name + ",pid=" + report.Get("pid") +
                             ",add cgroup failed, " + c.missing + "/tasks is not existed;"));
    ExpectPlaced(report.Pid(), "/OTHER", "/CtrlCPU", "0");
  }
}

TEST_F(Placement, WithoutAnyGroupTheBootGoesOnAndSaysSo) {
  Boot({Service("bound", {}, {{"coreAffinity", "[0]"}}),
        Service("free", {"--report", kReport}, {{"resGroupName", "OTHER"}})});
  const ServiceReport report = AwaitReport(sandbox_, kReport);
  EXPECT_TRUE(AwaitMessage("app=free,pid=" + report.Get("pid") +
                           ",add cgroup failed, cpu cgroup path=/sys/fs/cgroup/cpu/OTHER/tasks is "
                           "not existed;default ctrl cpu is null;"));
  const std::vector<std::string> lines = AwaitBoot();
  EXPECT_GE(CountLines(lines,
                       "4 Add pm tids to cgroup tasks failed, errinfo=add cgroup failed, cpu "
                       "cgroup path=/sys/fs/cgroup/cpu/OTHER/tasks is not existed;, tid="),
            4U);
  // No core is a control core, so none can be asked for.
  EXPECT_EQ(CountLines(lines, "3 CheckIsCtrlCpu app=bound, coreId=0 is not in CtrlCpu"), 1U);
  EXPECT_EQ(CountLines(lines, "Start baseApp success appName="), 1U);
  EXPECT_EQ(report.Get("status.Cpus_allowed_list"),
            StatusField(daemon_->Pid(), "Cpus_allowed_list"));
}

TEST_F(Placement, AiCoreTakesTheServiceIntoTheAiSet) {
  if (!HasTwoCores()) {
    GTEST_SKIP() << "a machine with one core has none for a second set";
  }
  sandbox_.MakePlatformGroups("0-1", "1");
  const auto app = [](const std::string& name, const std::string& cores) {
    return Service(name, {"--threads", "1", "--report", "/run/sandbox/" + name},
                   {{"cpuset", "CtrlCPU"}, {"coreAffinity", cores}, {"resGroupName", "OTHER"}});
  };
  Boot({app("ai", "[1]"), app("both", "[0, 1]"), app("ctrl", "[0]")});
  const auto pidOf = [&](const std::string& name) {
    return AwaitReport(sandbox_, "/run/sandbox/" + name).Pid();
  };
  ExpectPlaced(pidOf("ai"), "/OTHER", "/AICPU", "1");
  // The kernel cuts the mask to the set, which the AI core has chosen.
  ExpectPlaced(pidOf("both"), "/OTHER", "/AICPU", "1");
  ExpectPlaced(pidOf("ctrl"), "/OTHER", "/CtrlCPU", "0");
}

TEST_F(Placement, WithoutACoreListAServiceRunsOnTheControlCores) {
  if (!HasTwoCores()) {
    GTEST_SKIP() << "a machine with one core has no other to stay away from";
  }
  sandbox_.MakePlatformGroups("1");
  sandbox_.MakeCpuset("wide", "0-1");
  Boot({Service("wide", {"--threads", "2", "--report", kReport}, {{"cpuset", "wide"}})});
  ExpectPlaced(AwaitReport(sandbox_, kReport).Pid(), "/OTHER", "/wide", "1");
}

TEST_F(Placement, HomeLockedMemoryAndAPreloadedSanitizerReachEveryService) {
  sandbox_.MakePlatformGroups("0");
  sandbox_.WriteFile("/etc/vantor_common_env.conf", "# limits\nMAX_LOCKED_MEMORY_LIMIT=12288\n");
  sandbox_.AddUser("pilot", 1000, 1000, "/home/pilot");
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/pilots", 0, 1000, 0750);
  Boot(
      {{"service",
        "/opt/test/pilots",
        {"--report", kReport},
        {{"uid", "pilot"}, {"gid", "pilot"}, {"envArgv", "{LD_PRELOAD: /usr/lib/libasan.so.6}"}}}});
  const ServiceReport report = AwaitReport(sandbox_, kReport);
  EXPECT_EQ(report.Get("env.HOME"), "/home/pilot");
  EXPECT_EQ(report.Get("limit.memlock"), "12288,12288");
  EXPECT_EQ(report.Get("env.LD_PRELOAD"), "/lib64/libasan.so.4:libiam.so.1");
}

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
    sandbox_.WriteSettings("delay_core: {" + settings + "}\n");
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

  void Signal(int signal) { ASSERT_TRUE(Kill(daemon_->Pid(), signal)); }

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

// Both are pending when the manager comes to look, and the kernel hands out the binding first.
TEST_F(DelayedBinding, WakeUpAndTheRequestBehindItCanComeTogether) {
  BootDelayed("check_num: 1, wake_up_enable: true, check_interval: 0");
  Signal(ProcMgr::BindingSignal());
  ASSERT_TRUE(Await("CheckCoreAffinityThread finish check"));
  const std::size_t before = log_.Lines().size();
  Signal(SIGSTOP);
  ASSERT_TRUE(Eventually([this] { return ReadStat(daemon_->Pid()).state == 'T'; }));
  Signal(ProcMgr::WakeUpSignal());
  Signal(ProcMgr::BindingSignal());
  Signal(SIGCONT);
  const auto wokenUp = log_.WaitFor("WakeUpRecover success", before);
  ASSERT_TRUE(wokenUp.has_value());
  // Both follow within the 100 ms in which nobody has looked whether the flag was down.
  EXPECT_TRUE(Await("CheckCoreAffinityThread finish check 1 times", *wokenUp));
  EXPECT_TRUE(AllOn("0"));
  EXPECT_EQ(log_.Count("SetDelayCoreAffinity return directly"), 0U);
}

// With rounds until all are bound and no pause asked for, a thread that can't be bound would cost a
// processor.
TEST_F(DelayedBinding, EndlessRoundsLeaveTheProcessorToOthers) {
  sandbox_.MakeCpuset("Elsewhere", "1");
  BootDelayed("check_num: -1, check_interval: 0");
  const std::string tasks = sandbox_.Outside("/sys/fs/cgroup/cpuset/Elsewhere/tasks");
  for (const pid_t tid : Threads(pid_)) {
    ASSERT_EQ(ProcMgr::AppendId(tasks.c_str(), tid), 0);
  }
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  Signal(ProcMgr::BindingSignal());
  // 40 rounds of three threads have 39 pauses.
  ASSERT_TRUE(log_.WaitForCount("CheckMissingTids SetCoreAffinityToOs failed", 120));
  EXPECT_GE(ProcMgr::SteadyNow() - begin, std::chrono::milliseconds(390));
}

// Until the signal to continue has come the core lists aren't read, or just being read.
TEST_F(DelayedBinding, EventsOfAQuickStartWaitForItsContinuation) {
  sandbox_.WriteSettings("delay_core: {check_num: 1, wake_up_enable: true}\n");
  Boot({Service("plain")}, {"true"});
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "InitPriorityApps start priority apps finish"));
  Signal(ProcMgr::WakeUpSignal());
  Signal(SIGCONT);
  const auto continued = log_.WaitFor("ContinueProcMgrInit success");
  ASSERT_TRUE(continued.has_value());
  EXPECT_TRUE(Await("WakeUpRecover success"));
  EXPECT_GT(log_.WaitFor("WakeUpRecover wakeUpDelayCoreAffinity"), continued);
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
  ASSERT_TRUE(Kill(pid_));
  ASSERT_TRUE(log_.WaitFor("state=TERMINATED restart failed").has_value());
  Signal(ProcMgr::BindingSignal());
  ASSERT_TRUE(log_.WaitFor("CheckCoreAffinityThread finish check").has_value());
  EXPECT_EQ(log_.Count("delayed core binding failed"), 0U);
  EXPECT_EQ(log_.Count("BindCoreForDelayApp failed"), 0U);
}

}  // namespace
}  // namespace PmTest
