// How a boot begins: arguments, the service file, the order of the starts, what comes up before the
// base services, and the quick start.
#include <sys/resource.h>
#include <sys/time.h>

#include <cstddef>
#include <iterator>

#include "base/text.h"
#include "tests/support/forbidden_calls.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

std::string Started(const std::string& name) {
  return "6 [TRACE] Start baseApp success appName=" + name +
         ", binPath=/opt/test/test-service, pid=#, isDelayCoreAffinity_=0";
}

// What a careless starter leaves to the daemon.
void LeaveEverythingWrong() {
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    (void)std::signal(signal, SIG_IGN);
  }
  sigset_t all;
  (void)sigfillset(&all);
  (void)sigprocmask(SIG_SETMASK, &all, nullptr);
  const itimerval soon{{0, 0}, {0, 200'000}};
  (void)setitimer(ITIMER_REAL, &soon, nullptr);
  (void)umask(077);
  constexpr const char* kGone = "/run/sandbox/gone";
  (void)mkdir(kGone, 0700);
  (void)!chdir(kGone);
  (void)rmdir(kGone);
  (void)dup2(1, 60);  // Goes through every exec.
  (void)close(0);
  const rlimit few{64, 512};
  (void)setrlimit(RLIMIT_NOFILE, &few);
}

const std::string kDaemon = ProgramPath("process-manager");

// The same on a kernel that has no close_range, and with nothing at all: no output, no environment.
void LeaveNothingOnAnOldKernel() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  Install(filter);
  LeaveEverythingWrong();
  (void)close(1);
  (void)close(2);
  const char* const arguments[] = {kDaemon.c_str(), "/run/sandbox/base.yaml", nullptr};
  char* nothing = nullptr;
  (void)execve(kDaemon.c_str(), const_cast<char* const*>(arguments), &nothing);
}

const std::string kHashFile = "/etc/zur/base-plat/process-manager/bin_hash.cfg";

// What the boot thread says from main to the end of a boot of "alpha" and "beta".
const std::vector<std::string> kPlainBoot = {
    "6 ProcMgr: main begin: baseServiceCfgPath: /run/sandbox/base.yaml",
    "6 [TRACE], PM main begin",
    "4 GetWatchDogAction is null !",
    "6 PROCMGR: LoadWatchDogCfg finish enable=0, wdTimeout=30 s, wdAction=2",
    "3 LoadPmUploadCfg not exist pmupload key",
    "6 pm UpdateSelinuxEnable success: enable=0",
    "6 ProcMgr boot args, procmgr=x,nowatchdog",
    "6 ProcMgr: cmdline disableWatchDog_=1",
    "6 ProcMgr boot args, qelmode=kernel_utils",
    "6 ProcMgr: cmdline qelcoreEnable=1",
    "6 ProcMgr boot args, reboot_reason=cold",
    "4 [TRACE]PROCMGR: creat anonymous pipe success, read pipe fd=5, write pipe fd=6",
    "3 LoadSharepoolCfg failed: errno=2",
    "6 sharepoolCfg has DEFAULT_MEM_GROUP sharepool group",
    "6 CreateSharepoolGroup group=DEFAULT_MEM_GROUP success",
    "4 PROCMGR: IntegrityProtect hash config file=" + kHashFile + " is not exist",
    "6 PROCMGR: GetLockedMemoryLimitFromCfg limit value=65536",
    "6 PROCMGR: SetLockedMemoryLimit success limit value=65536 ",
    "6 PROCMGR: InquireHomeEnvVariable finished home env=/home/of-1000 ",
    "6 [TRACE], init success",
    "6 [TRACE] InitPriorityApps load priority apps cfg finish",
    "6 [TRACE] InitPriorityApps start priority apps finish",
    "6 is not quickstart, so not wait for continue signal",
    "4 pm Get board info success slotId_=-1",
    "6 Register sensor node for iammgr success. (handle=0x1)",
    "6 Register sensor node for proc_launcher success. (handle=0x2)",
    "6 [TRACE], ContinueProcMgrInit success",
    "6 [TRACE] InitBaseApplication begin, yaml path=/run/sandbox/base.yaml",
    Started("alpha"),
    "3 PROCMGR : Master ReportAppState failed: invalid fd, owner=iammgr",
    "3 PROCMGR : report alpha's state: 0 to iammgr failed",
    Started("beta"),
    "3 PROCMGR : Master ReportAppState failed: invalid fd, owner=iammgr",
    "3 PROCMGR : report beta's state: 0 to iammgr failed",
    "6 [TRACE] InitBaseApplication end",
    "7 PROCMGR : EnableWatchDog flag=1",
};

class Booting : public ScenarioTest {};

TEST_F(Booting, SecondManagerEndsBeforeItStartsAnything) {
  Boot({Service("alpha")});
  AwaitBooted();
  const std::size_t before = log_.Lines().size();
  Process second(sandbox_, ProgramPath("process-manager"), {kBaseFile}, {{}, "second"});
  const auto status = second.WaitExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 2);
  const std::string pid = std::to_string(daemon_->Pid());
  EXPECT_THAT(second.Output(), HasSubstr("another one runs on this machine, pid " + pid));
  EXPECT_TRUE(Await("another process-manager runs on this machine, pid=" + pid, before));
  ExpectTold("PM main begin");
}

// The children of the killed one live on. None of them has its lock; each that runs as a service
// is told, and nobody else who runs the same program.
TEST_F(Booting, NextManagerTellsWhatAKilledOneHasLeft) {
  const std::vector<App> services = {Service("alpha", {}, {{"envArgv", "{PROC_NAME: alpha}"}}),
                                     Service("beta")};
  Boot(services);
  const pid_t alpha = AwaitStarted("alpha");
  const pid_t beta = AwaitStarted("beta");
  AwaitBooted();
  EXPECT_EQ(log_.Count("of an earlier process-manager"), 0U);
  const Process stranger(sandbox_, kService, {}, {{}, "stranger"});
  daemon_->Signal(SIGKILL);
  ASSERT_TRUE(daemon_->WaitExit().has_value());

  const std::size_t before = log_.Lines().size();
  Process next(sandbox_, ProgramPath("process-manager"), {kBaseFile}, {{}, "next"});
  ASSERT_TRUE(Await("InitBaseApplication end", before));
  for (const auto& [pid, name] : {std::pair{alpha, "alpha"}, std::pair{beta, "beta"}}) {
    ExpectTold("pid=" + std::to_string(pid) +
               " of an earlier process-manager still runs as base app=" + name +
               ", path=" + kService);
  }
  ExpectTold("of an earlier process-manager", 2U);
}

TEST_F(Booting, BadArgumentsEndItAtOnceAndSayWhyOnBothSides) {
  struct Case {
    std::vector<std::string> arguments;
    std::string line;
    std::string output;  // A part of what it prints.
  };
  const std::string tooLong = "/" + std::string(4096, 'x');
  const Case cases[] = {
      {{}, "ProcMgr: intput argc num is < 2, please input baseService yaml config path", "usage:"},
      {{"/run/sandbox/no.yaml"},
       "ProcMgr: StandardizationPath failed, path: /run/sandbox/no.yaml",
       "/run/sandbox/no.yaml"},
      {{tooLong}, "ProcMgr: StandardizationPath failed, path: " + tooLong, tooLong.substr(0, 100)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 80));
    const std::size_t before = log_.Lines().size();
    Start(c.arguments);
    const auto status = daemon_->WaitExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 255);
    EXPECT_THAT(daemon_->Output(), HasSubstr(c.output));
    ASSERT_TRUE(Await(c.line, before));
    // Nothing but this line: it has touched nothing else.
    EXPECT_EQ(log_.Masked(before), std::vector<std::string>{"3 " + c.line});
  }
}

// Everything that a boot says, in its order. The check thread speaks in between, at a moment of its
// own, so its lines are compared apart.
TEST_F(Booting, WholeLogOfABootWithServicesThatReportNothing) {
  sandbox_.AddUser("home", 1000, 1000, "/home/of-1000");
  sandbox_.SetKernelCommandLine(
      "quiet procmgr=x,nowatchdog qelmode=kernel_utils reboot_reason=cold\n");
  sandbox_.WriteFile("/etc/vantor_common_env.conf", "MAX_LOCKED_MEMORY_LIMIT=65536\n");
  sandbox_.WriteSettings("watch_dog:\n  enable: false\n  timeout: 30\n  action: 9\n");
  Boot({Service("beta"), Service("alpha")});
  ASSERT_TRUE(Await("PROCMGR : EnableWatchDog flag="));
  ASSERT_TRUE(log_.WaitForCount("STARTING to RUNNING", 2));
  std::vector<std::string> main;
  std::vector<std::string> check;
  for (const std::string& line : log_.Masked()) {
    (line.find("STARTING to RUNNING") == std::string::npos ? main : check).push_back(line);
  }
  EXPECT_EQ(main, kPlainBoot);
  EXPECT_EQ(check, (std::vector<std::string>{
                       "6 PROCMGR : STARTING to RUNNING appName=alpha, pid=#",
                       "6 PROCMGR : STARTING to RUNNING appName=beta, pid=#",
                   }));
  EXPECT_FALSE(std::filesystem::exists(sandbox_.Outside("/run/nexio/PROCMGR.sock")))
      << "processes may report themselves though no setting says so";
  for (const LogLine& line : log_.Lines()) {
    EXPECT_EQ(line.ident, "PROCMGR");
    EXPECT_EQ(line.facility, 1);
    EXPECT_EQ(line.pid, daemon_->Pid());
  }
}

TEST_F(Booting, NoFaultOfTheServiceFileStopsIt) {
  struct Case {
    std::string text;
    std::string place;  // Where the fault is, behind the file's path.
  };
  const std::string good = ServiceFile({Service("alpha")});
  const Case cases[] = {
      {"", ""},
      {"applications: 7\n", ":1:"},
      {std::string("\xff\xfe\0garbage", 10), ":1:"},
      {good + "    restart: sometimes\n", ":6:"},
      {good + "  - appName: alpha\n    binPath: /bin/true\n    uid: 0\n    gid: 0\n", ":6:"},
      {good + "  - include: missing.yaml\n", ":6:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::size_t before = log_.Lines().size();
    sandbox_.WriteFile(kBaseFile, c.text);
    Start({kBaseFile});
    ASSERT_TRUE(Await("PROCMGR : ParseYamlFile failed, ProcMgr return", before));
    EXPECT_THAT(log_.Masked(before), Contains(StartsWith("3 " + std::string(kBaseFile) + c.place)));
    // It stays up, supervising nothing, until somebody ends it the default way.
    EXPECT_TRUE(daemon_->IsRunning());
    EXPECT_TRUE(daemon_->Services().empty());
    daemon_->Signal(SIGTERM);
    EXPECT_EQ(daemon_->WaitExit(), SIGTERM);
  }
}

TEST_F(Booting, StartsOfARoundGoInNameOrderAndFailuresHoldNobodyUp) {
  Boot({Service("zeta"),
        {"broken", "/opt/test/missing", {}, {}},
        Service("mid"),
        Service("shell", {"$(reboot)"}),
        Service("alpha")});
  AwaitBooted();
  const std::string started = "Start baseApp success appName=";
  std::size_t from = 0;
  for (const std::string name : {"alpha", "mid", "zeta"}) {
    const auto index = log_.WaitFor(started + name + ",", from);
    ASSERT_TRUE(index.has_value()) << name;
    from = *index;
  }
  ExpectTold(started, 3U);
  for (const char* line :
       {"PROCMGR : Start App=broken failed, binPath=/opt/test/missing is not existed !!!",
        "start baseApp=broken failed", "start baseApp=shell failed"}) {
    ExpectTold(line);
  }
  EXPECT_TRUE(Await("PROCMGR : EnableWatchDog flag=0"));
  EXPECT_EQ(daemon_->Services().size(), 3U);
}

TEST_F(Booting, DependenciesThatAreNotRunningRefuseTheStart) {
  // The dependant of a service that ends at once, of a missing name, of itself, and of a circle.
  Boot({Service("early", {}, {{"dependList", "[nobody]"}}), Service("first"),
        Service("orphan", {}, {{"dependList", "[first, nobody]"}}),
        Service("ring1", {}, {{"dependList", "[ring2]"}}),
        Service("ring2", {}, {{"dependList", "[ring1]"}})});
  AwaitBooted();
  // Nothing had been started when its turn came.
  ExpectTold("PROCMGR : early 's dependcy nobody hasn't been started");
  ExpectTold("PROCMGR : ring1 's dependcy ring2 not find,");
  ExpectTold("ring1 -> ring2 -> ring1");
  for (const char* name : {"early", "orphan", "ring1", "ring2"}) {
    ExpectTold("start baseApp=" + std::string(name) + " failed");
  }
  EXPECT_EQ(daemon_->Services().size(), 1U);
}

constexpr const char* kEntry = "/run/sandbox/entry.yaml";

class Priority : public ScenarioTest {
 protected:
  // A launcher that owns the applications of the entry file and never serves a channel.
  void BootWith(const std::vector<App>& entries, std::vector<std::string> arguments = {}) {
    sandbox_.WriteFile(kEntry, ServiceFile(entries));
    Boot({Service("launcher", {}, {{"startupEntryPath", kEntry}})}, std::move(arguments));
  }

  // The names in the order of their starts.
  std::vector<std::string> Started() {
    std::vector<std::string> names;
    constexpr std::string_view kMark = "Start priority generalApp success appName=";
    for (const LogLine& line : log_.Lines()) {
      if (const auto at = line.text.find(kMark); at != std::string::npos) {
        const std::string rest = line.text.substr(at + kMark.size());
        names.push_back(rest.substr(0, rest.find(',')));
      }
    }
    return names;
  }
};

TEST_F(Priority, StartsInOrderBeforeAnyBaseService) {
  BootWith({Service("third", {}, {{"startupPriority", "3"}}),
            Service("never"),
            Service("b-first", {}, {{"startupPriority", "1"}}),
            Service("a-first", {}, {{"startupPriority", "1"}}),
            {"broken", "/opt/test/nothing", {}, {{"startupPriority", "2"}}}});
  AwaitBooted();
  EXPECT_THAT(Started(), ElementsAre("a-first", "b-first", "third"));
  ExpectTold("Start priority generalApp failed appName=broken, child_pid=0");
  const auto finished = log_.WaitFor("InitPriorityApps start priority apps finish");
  const auto base = log_.WaitFor("Start baseApp success appName=launcher");
  ASSERT_TRUE(finished.has_value() && base.has_value());
  EXPECT_LT(*finished, *base);
}

// Dies at once, is listed twice, has an owner who never comes: nothing is left over. Of two alike
// the one of the file that comes first counts.
TEST_F(Priority, EndsAreSeenAndDoublesAreNot) {
  const App twice = Service("twice", {}, {{"startupPriority", "5"}});
  sandbox_.WriteFile("/run/sandbox/second.yaml",
                     ServiceFile({twice, {"short", "/bin/true", {}, {{"startupPriority", "1"}}}}));
  sandbox_.WriteFile(kEntry, ServiceFile({twice}));
  Boot({Service("launcher", {}, {{"startupEntryPath", kEntry}}),
        Service("second", {}, {{"startupEntryPath", "/run/sandbox/second.yaml"}})});
  AwaitBooted();
  EXPECT_TRUE(Await("Process short removed from the list of generalAppMap_"));
  EXPECT_THAT(Started(), ElementsAre("short", "twice"));
  ExpectTold("priority app=twice is started already, ignore it from owner=second");
  EXPECT_TRUE(daemon_->AwaitReaped());
  EXPECT_EQ(daemon_->Services().size(), 3U);
}

TEST_F(Priority, QuickStartWaitsForTheSignalAndMakesUpForWhatChildrenLeftOut) {
  BootWith(
      {Service("early", {"--threads", "3"}, {{"startupPriority", "1"}, {"coreAffinity", "[0]"}})},
      {"true"});
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "InitPriorityApps start priority apps finish"));
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "Start priority generalApp success appName=early"));
  const std::vector<pid_t> early = daemon_->Services();
  ASSERT_EQ(early.size(), 1U);
  ASSERT_TRUE(Eventually([&] { return Threads(early.front()).size() == 4; }));
  // Outside its groups as long as the quick start lasts.
  const std::string cgroup = "/proc/" + std::to_string(early.front()) + "/cgroup";
  EXPECT_THAT(sandbox_.ReadFile(cgroup), ::testing::Not(HasSubstr("CtrlCPU")));
  EXPECT_EQ(log_.Count("InitBaseApplication begin"), 0U);

  ASSERT_TRUE(Kill(daemon_->Pid(), SIGCONT));
  AwaitBooted();
  EXPECT_TRUE(
      WaitForKernelLog(sandbox_, "wait success for continue startup, catch continue signal"));
  for (const pid_t tid : Threads(early.front())) {
    EXPECT_THAT(sandbox_.ReadFile("/proc/" + std::to_string(tid) + "/cgroup"),
                HasSubstr("CtrlCPU"));
    EXPECT_EQ(StatusField(tid, "Cpus_allowed_list"), "0") << tid;
  }
  // The quick start is over for good: the routed lines are back in syslog.
  ExpectTold("pm Get board info success");
  ASSERT_TRUE(Kill(daemon_->Pid(), SIGCONT));
  EXPECT_TRUE(daemon_->IsRunning());
}

TEST_F(Priority, EarlySignalEndsTheWait) {
  BootWith({Service("early", {}, {{"startupPriority", "1"}})}, {"true"});
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "init success"));
  ASSERT_TRUE(Kill(daemon_->Pid(), SIGCONT));
  AwaitBooted();
  EXPECT_FALSE(WaitForKernelLog(sandbox_, "timeout!!", std::chrono::milliseconds(0)));
}

// Every word but "true" is a normal start, and a SIGCONT then does nothing.
TEST_F(Priority, OtherWordsAreNoQuickStart) {
  BootWith({Service("early", {}, {{"startupPriority", "1"}})}, {"TRUE"});
  AwaitBooted();
  ASSERT_TRUE(Kill(daemon_->Pid(), SIGCONT));
  ExpectTold("is not quickstart");
  EXPECT_EQ(sandbox_.ReadFile("/dev/kmsg"), "");
}

using Starter = void (*)();

class OddStarter : public ScenarioTest, public ::testing::WithParamInterface<Starter> {};

TEST_F(Booting, WithoutAThreadItSaysSoAndEnds) {
  beforeDaemon_ = &ForbidThreads;
  Boot({Service("never")});
  EXPECT_EQ(daemon_->WaitExit(), 1 << 8);
  EXPECT_TRUE(Await("PROCMGR: Caught exception=Resource temporarily unavailable"));
}

TEST_P(OddStarter, PutsRightWhatItsStarterLeftBehind) {
  const std::string file = "/run/sandbox/report";
  beforeDaemon_ = GetParam();
  Boot({Service("worker", {"--report", file}, {{"restart", "on-failure"}})});
  const ServiceReport worker = AwaitReport(sandbox_, file);
  EXPECT_EQ(worker.Get("status.SigBlk"), "0000000000000000");
  const auto ignored = ProcMgr::ParseNumber<std::uint64_t>(worker.Get("status.SigIgn"), 16);
  constexpr std::uint64_t kOwn = std::uint64_t{1} << (SIGPIPE - 1);  // The daemon's.
  EXPECT_EQ(ignored.value_or(kOwn + 1) & ~kOwn, 0U) << worker.Get("status.SigIgn");
  EXPECT_EQ(worker.Get("status.Umask"), "0022");
  EXPECT_EQ(worker.Get("limit.nofile"), "64,512");
  EXPECT_EQ(worker.Below("fd.").size(), 5U) << worker.Get("fds");
  EXPECT_EQ(worker.Get("fd.0"), "/dev/null");
  if (GetParam() == &LeaveNothingOnAnOldKernel) {
    EXPECT_EQ(worker.Get("fd.2"), "/dev/null");
    EXPECT_EQ(
        worker.Below("env."),
        (std::map<std::string, std::string>{
            {"HOME", worker.Get("env.HOME")}, {"IS_RESTART", "0"}, {"PROC_NAME", "PROCMGR"}}));
  }

  const std::string process = "/proc/" + std::to_string(daemon_->Pid());
  EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/");
  rlimit limit{};
  ASSERT_EQ(prlimit(daemon_->Pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
  EXPECT_EQ(limit.rlim_cur, 512U);
  // Its end is seen, and the manager's own can be asked for.
  ASSERT_TRUE(Kill(worker.Pid()));
  EXPECT_NE(AwaitReport(sandbox_, file, worker.Pid()).Pid(), worker.Pid());
  daemon_->Signal(SIGTERM);
  const auto status = daemon_->WaitExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM) << *status;
}

INSTANTIATE_TEST_SUITE_P(Of, OddStarter,
                         ::testing::Values(&LeaveEverythingWrong, &LeaveNothingOnAnOldKernel),
                         [](const auto& kernel) {
                           return kernel.index == 0 ? "ThisKernel"
                                                    : "AKernelWithoutCloseRangeAndNothing";
                         });

}  // namespace
}  // namespace PmTest
