// What a started process is: its identity, environment, limits, descriptors and signals.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <sstream>

#include "core/host_context.h"
#include "host/host_limits.h"
#include "host/sharepool_cfg.h"
#include "tests/support/process_table.h"
#include "tests/unit/app/fakes.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using PmTest::ServiceReport;
using Env = std::map<std::string, std::string>;

using Launch = LaunchTest;

const std::string kNoCores = "default ctrl cpu is null;";  // Nobody has loaded the core lists.

TEST_F(Launch, BothKindsBecomeTheApplicationsUser) {
  const auto expectUser = [](const ServiceReport& report) {
    EXPECT_EQ(report.Get("uids"), "2001,2001,2001");
    EXPECT_EQ(report.Get("gids"), "3001,3001,3001");
    // From the user's own entries; the configured group isn't among them.
    EXPECT_EQ(report.Get("groups"), "2001,3002");
    EXPECT_EQ(report.Get("status.CapEff"), "0000000000000000");
  };
  BaseAppInfo base = BaseRecord(Fields());
  expectUser(ReportOf(base));
  EXPECT_EQ(PipeText(), Message(base, kNoCores)) << "a failed binding is told, the start goes on";
  GeneralAppInfo general = GeneralRecord(Fields());
  expectUser(ReportOf(general));
  EXPECT_EQ(PipeText(), Message(general, kNoCores));
}

TEST_F(Launch, ArgumentsArriveAsTheyAre) {
  ApplicationManifest::Fields fields = Fields();
  // The last flag is never reached: the report lists it and the service then waits.
  fields.arguments.insert(fields.arguments.end(), {"--touch", "/run/sandbox/a b '*' \\"});
  GeneralAppInfo app = GeneralRecord(fields);
  const ServiceReport report = ReportOf(app);
  EXPECT_EQ(report.Get("argc"), "5");
  EXPECT_EQ(report.Get("argv.0"), kService);
  EXPECT_EQ(report.Get("argv.4"), "/run/sandbox/a b '*' \\");
}

TEST_F(Launch, DescriptorsAreTheThreeOfThePipeAndNoOther) {
  const HostContext& context = HostContext::Instance();
  const std::string expected = "0,1,2," + std::to_string(context.childMsgReadFd_.Get()) + "," +
                               std::to_string(context.childMsgWriteFd_.Get());
  BaseAppInfo base = BaseRecord(Fields());
  EXPECT_EQ(ReportOf(base).Get("fds"), expected);
  GeneralAppInfo general = GeneralRecord(Fields());
  EXPECT_EQ(ReportOf(general).Get("fds"), expected);
}

TEST_F(Launch, SignalsAreUnblockedAndSigpipeIsIgnored) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
  BaseAppInfo base = BaseRecord(Fields());
  GeneralAppInfo general = GeneralRecord(Fields());
  for (const ServiceReport& report : {ReportOf(base), ReportOf(general)}) {
    EXPECT_EQ(report.Get("status.SigBlk"), "0000000000000000");
    const std::uint64_t ignored = std::stoull(report.Get("status.SigIgn"), nullptr, 16);
    EXPECT_NE(ignored & (std::uint64_t{1} << (SIGPIPE - 1)), 0U);
    EXPECT_EQ(ignored & (std::uint64_t{1} << (SIGTERM - 1)), 0U);
  }
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

// Root may lack the right to raise a hard limit, in a container for example.
bool MayRaiseLimits() {
  constexpr int kCapSysResource = 24;
  const std::string capabilities = PmTest::StatusField(getpid(), "CapEff");
  return ((std::stoull(capabilities, nullptr, 16) >> kCapSysResource) & 1) != 0;
}

TEST_F(Launch, LimitNicenessAndPolicy) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_RTPRIO, &limit), 0);
  const std::string inherited =
      std::to_string(limit.rlim_cur) + "," + std::to_string(limit.rlim_max);
  const bool isGiven = limit.rlim_cur >= 99;
  const bool isRaised = MayRaiseLimits() || limit.rlim_max >= 99;
  const std::string raised = isRaised ? "99,99" : inherited;
  const std::string notRaised = isRaised ? "" : "prlimit failed,errno=1;";
  // Behind the change of the user only the limit gives the right to a real-time policy.
  const std::string notFifo = "sched_setscheduler failed errno=1;";
  const int ownNice = getpriority(PRIO_PROCESS, 0);
  struct {
    bool isSetRtPrio;
    std::int32_t nice;
    std::int32_t policy;
    std::string limit;
    bool isFifo;
    std::string text;
  } const rows[] = {
      {false, 0, 5, inherited, false, kNoCores},
      {true, 0, 5, raised, false, notRaised + kNoCores},
      {false, 7, 5, inherited, false, kNoCores},
      {false, 0, 3, inherited, isGiven, kNoCores + (isGiven ? "" : notFifo)},
      {true, 0, 3, raised, isRaised, notRaised + kNoCores + (isRaised ? "" : notFifo)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    GeneralAppInfo app = GeneralRecord(Fields());
    app.isSetRtPrio_ = row.isSetRtPrio;
    app.nice_ = row.nice;
    app.schedPolicy_ = row.policy;
    const ServiceReport report = ReportOf(app);
    EXPECT_EQ(report.Get("limit.rtprio"), row.limit);
    EXPECT_EQ(report.Get("nice"), std::to_string(ownNice + row.nice));
    EXPECT_EQ(report.Get("policy"), row.isFifo ? "1" : "0");
    EXPECT_EQ(report.Get("priority"), row.isFifo ? "99" : "0");
    EXPECT_EQ(PipeText(), Message(app, row.text));
  }
  ApplicationManifest::Fields fields = Fields();
  fields.isSetRtPrio = true;
  fields.vfId = 0;
  fields.nice = 7;
  BaseAppInfo base = BaseRecord(fields);
  const ServiceReport report = ReportOf(base);
  EXPECT_EQ(report.Get("limit.rtprio"), raised);
  EXPECT_EQ(report.Get("nice"), std::to_string(ownNice)) << "a base application has none";
  EXPECT_EQ(report.Get("mempolicy").substr(0, 2), "0,") << "nor a memory policy";
}

// "NAME=VALUE NAME=VALUE NAME": a name alone stands for a variable that isn't there.
Env ParseEnv(const std::string& text) {
  Env env;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    env[word.substr(0, equals)] = equals == std::string::npos ? "(none)" : word.substr(equals + 1);
  }
  return env;
}

void ExpectEnv(const ServiceReport& report, const std::string& expected) {
  for (const auto& [name, value] : ParseEnv(expected)) {
    EXPECT_EQ(report.Get("env." + name), value) << name;
  }
}

TEST_F(Launch, EnvironmentOfAGeneralApplication) {
  struct {
    const char* owner;
    bool heartBeat;
    const char* configured;
    const char* expected;
  } const rows[] = {
      {"owner", false, "KEY=k",
       "PROC_NAME=PROCMGR PROC_PLANE=PLANE_MANAGE HOME=/home/found OWNER_NAME=owner KEY=k GRP_HB "
       "LD_PRELOAD IS_RESTART STARTUP_ENTRY_PATH SHAREGROUP_PRECONFIG "
       "IAM_SAW=svc,/opt/test/service,HOME=/home/found,OWNER_NAME=owner,KEY=k,uid=2001"},
      {"ventrix", true, "", "PROC_PLANE=PLANE_DATA GRP_HB=1 OWNER_NAME=ventrix"},
      // What may be configured, and what not.
      {"owner", true, "PROC_NAME=svc PROC_PLANE=mine HOME=/mine OWNER_NAME=mine GRP_HB=mine",
       "PROC_NAME=svc PROC_PLANE=mine HOME=/mine OWNER_NAME=owner GRP_HB=1 "
       "IAM_SAW=svc,/opt/test/service,HOME=/mine,OWNER_NAME=owner,KEY,uid=2001"},
      {"owner", false, "LD_PRELOAD=a.so:/x/libasan.so.8",
       "LD_PRELOAD=/lib64/libasan.so.4:libiam.so.1"},
      {"owner", false, "LD_PRELOAD=libasan.s", "LD_PRELOAD=libasan.s"},
  };
  ASSERT_EQ(setenv("PROC_NAME", "PROCMGR", 1), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.configured);
    ApplicationManifest::Fields fields = Fields();
    fields.envArgv = ParseEnv(row.configured);
    fields.heartBeatSwitch = row.heartBeat;
    GeneralAppInfo app = GeneralRecord(fields, row.owner);
    app.homeEnv_ = "/home/found";
    ExpectEnv(ReportOf(app), row.expected);
  }
}

TEST_F(Launch, EnvironmentOfABaseApplication) {
  using enum ReportAppStateType;
  struct {
    const char* entry;
    ReportAppStateType report;
    const char* configured;
    const char* expected;
  } const rows[] = {
      {"", INVALID_INTERMEDIATE_STATE, "KEY=k",
       "HOME=/home/found KEY=k IS_RESTART=0 STARTUP_ENTRY_PATH PROC_PLANE OWNER_NAME GRP_HB "
       "SHAREGROUP_PRECONFIG "
       "IAM_SAW=svc,/opt/test/service,HOME=/manager,OWNER_NAME,KEY=k,uid=2001"},
      // What may be configured, and what not.
      {"", TERMINATED_NORMAL_EXIT,
       "HOME=/mine IS_RESTART=mine STARTUP_ENTRY_PATH=/mine LD_PRELOAD=libasan.so PROC_PLANE=mine",
       "HOME=/home/found IS_RESTART=0 STARTUP_ENTRY_PATH=/mine PROC_PLANE=mine "
       "LD_PRELOAD=/lib64/libasan.so.4:libiam.so.1 "
       "IAM_SAW=svc,/opt/test/service,HOME=/mine,OWNER_NAME,KEY,uid=2001"},
      {"/opt/entry.yaml", TERMINATED_ABNORMAL_EXIT, "STARTUP_ENTRY_PATH=/mine",
       "IS_RESTART=1 STARTUP_ENTRY_PATH=/opt/entry.yaml"},
  };
  ASSERT_EQ(setenv("HOME", "/manager", 1), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.configured);
    ApplicationManifest::Fields fields = Fields();
    fields.envArgv = ParseEnv(row.configured);
    fields.startupEntryPath = row.entry;
    fields.heartBeatSwitch = true;
    BaseAppInfo app = BaseRecord(fields);
    app.homeEnv_ = "/home/found";
    app.reportState_ = row.report;
    ExpectEnv(ReportOf(app), row.expected);
  }
}

TEST_F(Launch, ShareGroupsAreForAFewNamesOnly) {
  SharepoolCfg::Instance().InitSharepool("/nonexistent");
  ApplicationManifest::Fields fields = Fields();
  fields.sharepoolGroups = {{kDefaultSharepoolGroup, "ro"}};
  struct {
    const char* name;
    const char* owner;
    const char* general;  // The right that a general application gets; null for no group.
    const char* base;
  } const rows[] = {
      {"svc", "ventrix", "2", nullptr}, {"ventrix", "owner", "2", "14"},
      {"EM", "owner", "2", "14"},       {"em", "owner", nullptr, nullptr},
      {"svc", "EM", nullptr, nullptr},
  };
  const auto expectGroups = [](const AppInfo& app, const ServiceReport& report, const char* right) {
    Lines expected;
    if (right != nullptr) {
      expected = {std::string(kDefaultSharepoolGroup) + " " + std::to_string(app.pid_) + " " +
                  right};
    }
    EXPECT_EQ(Platform().admitted, expected);
    EXPECT_EQ(report.Get("env.SHAREGROUP_PRECONFIG"), right == nullptr ? "(none)" : "1");
    EXPECT_EQ(report.Get("env.SHAREPOOL_GROUP_NAME"),
              right == nullptr ? "(none)" : kDefaultSharepoolGroup);
    ResetPlatform();
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " of " + row.owner);
    fields.appName = row.name;
    GeneralAppInfo general = GeneralRecord(fields, row.owner);
    expectGroups(general, ReportOf(general), row.general);
    BaseAppInfo base = BaseRecord(fields);
    expectGroups(base, ReportOf(base), row.base);
  }
}

TEST_F(Launch, TheParentFilesTheStartAndSaysSo) {
  const SteadyTime before = SteadyNow();
  BaseAppInfo base = BaseRecord(Fields());
  base.SetExitStatus(9);
  base.boundTids_ = {1};
  base.isReady_ = true;
  base.restartTimes_ = {before};
  (void)TakeLog();
  (void)ReportOf(base);
  EXPECT_EQ(MaskedLog(), Lines{"I [TRACE] Start baseApp success appName=svc, "
                               "binPath=/opt/test/service, pid=#, isDelayCoreAffinity_=0"});
  EXPECT_EQ(base.state_, ProcessState::STARTING);
  EXPECT_FALSE(base.isExited_);
  EXPECT_EQ(base.exitStatus_, 9);
  EXPECT_TRUE(base.boundTids_.empty());
  EXPECT_TRUE(base.isReady_);
  EXPECT_EQ(base.restartTimes_.size(), 1U);
  EXPECT_GE(base.startTime_, before);

  ApplicationManifest::Fields fields = Fields();
  fields.isDelayCoreAffinity = true;
  GeneralAppInfo general = GeneralRecord(fields);
  general.state_ = ProcessState::RESTARTING;
  (void)ReportOf(general);
  EXPECT_EQ(MaskedLog(), Lines{"I [TRACE] Start generalApp success appName=svc, child_pid=#, "
                               "isDelayCoreAffinity_=0"});
  EXPECT_EQ(general.state_, ProcessState::RESTARTING) << "the caller's to change";
  EXPECT_FALSE(general.isDelayCoreAffinity_) << "without cores there is nothing to delay";
}

}  // namespace
}  // namespace ProcMgr::App
