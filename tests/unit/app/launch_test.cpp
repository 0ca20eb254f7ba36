// What a started process is: its identity, environment, limits, descriptors and signals.
#include <sys/resource.h>

#include <cstdlib>

#include "app/share_groups.h"
#include "host/sharepool_cfg.h"
#include "sandbox/process_table.h"
#include "tests/unit/app/fakes.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using PmTest::ServiceReport;
using Env = std::map<std::string, std::string>;

using Launch = LaunchTest;

TEST_F(Launch, BothKindsBecomeTheApplicationsUser) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
  ApplicationManifest::Fields fields = Fields();
  // The last flag is never reached: the report lists it and the service then waits.
  fields.arguments.insert(fields.arguments.end(), {"--touch", "/run/sandbox/a b '*' \\"});
  ForBothKinds(fields, [this](auto& app) {
    const ServiceReport report = ReportOf(app);
    EXPECT_EQ(report.Get("uids"), "2001,2001,2001");
    EXPECT_EQ(report.Get("gids"), "3001,3001,3001");
    // From the user's own entries; the configured group isn't among them.
    EXPECT_EQ(report.Get("groups"), "2001,3002");
    EXPECT_EQ(report.Get("status.CapEff"), "0000000000000000");
    EXPECT_EQ(report.Get("argc"), "5");
    EXPECT_EQ(report.Get("argv.0"), kService);
    EXPECT_EQ(report.Get("argv.4"), "/run/sandbox/a b '*' \\");
    EXPECT_EQ(report.Get("status.SigBlk"), "0000000000000000");
    const std::uint64_t ignored = std::stoull(report.Get("status.SigIgn"), nullptr, 16);
    EXPECT_EQ(ignored & (1U << (SIGPIPE - 1) | 1U << (SIGTERM - 1)), 1U << (SIGPIPE - 1));
    EXPECT_EQ(PipeText(), Message(app, kNoCores)) << "a failed binding is told, the start goes on";
  });
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

// Before a start has put the thread ahead of others.
const int kOwnNice = getpriority(PRIO_PROCESS, 0);

// Root may lack the right to raise a hard limit, in a container for example.
bool MayRaiseLimits() {
  constexpr int kCapSysResource = 24;
  const std::string capabilities = PmSandbox::StatusField(getpid(), "CapEff");
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
  struct {
    bool isSetRtPrio;
    std::int32_t nice;
    std::int32_t policy;
    std::string limit;
    bool isFifo;
    std::string text;
  } const rows[] = {
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
    EXPECT_EQ(report.Get("nice"), std::to_string(kOwnNice + row.nice));
    EXPECT_EQ(report.Get("policy"), row.isFifo ? "1" : "0");
    EXPECT_EQ(report.Get("priority"), row.isFifo ? "99" : "0");
    EXPECT_EQ(PipeText(), Message(app, row.text));
  }
  ApplicationManifest::Fields fields = Fields();
  fields.nice = 7;
  BaseAppInfo base = BaseRecord(fields);
  EXPECT_EQ(ReportOf(base).Get("nice"), std::to_string(kOwnNice)) << "a base application has none";
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
      {"ventrix", true, "LD_PRELOAD=libasan.s",
       "PROC_PLANE=PLANE_DATA GRP_HB=1 OWNER_NAME=ventrix LD_PRELOAD=libasan.s"},
      // What may be configured, and what not.
      {"owner", true,
       "PROC_NAME=svc PROC_PLANE=mine HOME=/mine OWNER_NAME=mine GRP_HB=mine "
       "LD_PRELOAD=a.so:/x/libasan.so.8",
       "PROC_NAME=svc PROC_PLANE=mine HOME=/mine OWNER_NAME=owner GRP_HB=1 "
       "LD_PRELOAD=/lib64/libasan.so.4:libiam.so.1 "
       "IAM_SAW=svc,/opt/test/service,HOME=/mine,OWNER_NAME=owner,KEY,uid=2001"},
  };
  ASSERT_EQ(setenv("PROC_NAME", "PROCMGR", 1), 0);
  Platform().accessNeedsOwnMemory = true;
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
  ASSERT_EQ(setenv("HOME", "/manager", 1), 0);
  Platform().accessNeedsOwnMemory = true;
  ApplicationManifest::Fields fields = Fields();
  fields.heartBeatSwitch = true;
  fields.envArgv = ParseEnv("KEY=k IS_RESTART=mine STARTUP_ENTRY_PATH=/mine");
  BaseAppInfo app = BaseRecord(fields);
  app.homeEnv_ = "/home/found";
  app.reportState_ = ReportAppStateType::TERMINATED_NORMAL_EXIT;
  ExpectEnv(ReportOf(app),
            "HOME=/home/found KEY=k IS_RESTART=0 STARTUP_ENTRY_PATH=/mine PROC_PLANE OWNER_NAME "
            "GRP_HB SHAREGROUP_PRECONFIG "
            "IAM_SAW=svc,/opt/test/service,HOME=/manager,OWNER_NAME,KEY=k,uid=2001");
  app.startupEntryPath_ = "/opt/entry.yaml";
  app.reportState_ = ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
  ExpectEnv(ReportOf(app), "IS_RESTART=1 STARTUP_ENTRY_PATH=/opt/entry.yaml");
}

bool Holds(const Environment& env, std::string_view text) {
  char* const* entry = env.Pointers();
  while (*entry != nullptr && *entry != text) {
    ++entry;
  }
  return *entry != nullptr;
}

TEST(ShareGroups, AreForAFewNamesOnly) {
  SharepoolCfg::Instance().InitSharepool("/nonexistent");
  struct {
    const char* name;
    const char* owner;
    bool hasGroups;
  } const rows[] = {
      {"svc", "ventrix", true}, {"ventrix", "owner", true}, {"EM", "owner", true},
      {"em", "owner", false},   {"svc", "EM", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " of " + row.owner);
    ResetPlatform();
    AddShareGroups(row.name, row.owner, 7, {});
    EXPECT_EQ(Platform().admitted, Lines(row.hasGroups ? 1 : 0, "DEFAULT_MEM_GROUP 7 14"));
    Environment env;
    std::string err;
    SetShareGroupEnv(row.name, row.owner, {}, env, err);
    EXPECT_EQ(Holds(env, "SHAREGROUP_PRECONFIG=1"), row.hasGroups);
  }
}

// Leaves out what is another in each process, and what the access library tells of itself.
bool IsSetByTheLaunch(const std::string& key) {
  if (key.starts_with("status.")) {
    constexpr std::array kFields = {"Sig",   "Cap",  "Umask", "Groups",
                                    "NoNew", "Secc", "Cpus",  "Mems"};
    return std::any_of(kFields.begin(), kFields.end(), [&](const char* field) {
      return std::string_view(key).substr(7).starts_with(field);
    });
  }
  return key != "pid" && key != "env.IAM_SAW";
}

// A child that shares the manager's memory until its exec ends up as one that was forked.
TEST_F(Launch, BothRoadsMakeTheSameProcess) {
  ASSERT_EQ(setenv("HOME", "/manager", 1), 0);
  ApplicationManifest::Fields fields = Fields();
  fields.envArgv = ParseEnv("HOME=/mine A=1 PROC_NAME=svc");
  fields.heartBeatSwitch = true;
  fields.isSetRtPrio = true;
  fields.nice = 3;
  const auto reportOf = [this](auto app, bool needsOwnMemory) {
    Platform().accessNeedsOwnMemory = needsOwnMemory;
    std::map<std::string, std::string> report = ReportOf(app).Below("");
    std::erase_if(report, [](const auto& entry) { return !IsSetByTheLaunch(entry.first); });
    return report;
  };
  const auto compare = [&](const auto& app) {
    const auto forked = reportOf(app, true);
    EXPECT_GT(forked.size(), 40U);
    EXPECT_EQ(reportOf(app, false), forked);
  };
  compare(BaseRecord(fields));
  compare(GeneralRecord(fields, "ventrix"));
}

TEST_F(Launch, TheParentFilesTheStartAndSaysSo) {
  const SteadyTime before = SteadyNow();
  BaseAppInfo base = BaseRecord(Fields());
  base.SetExitStatus(9);
  base.boundTids_ = {1};
  (void)TakeLog();
  (void)ReportOf(base);
  EXPECT_EQ(MaskedLog(), Lines{"I [TRACE] Start baseApp success appName=svc, "
                               "binPath=/opt/test/service, pid=#, isDelayCoreAffinity_=0"});
  EXPECT_EQ(base.state_, ProcessState::STARTING);
  EXPECT_FALSE(base.isExited_);
  EXPECT_TRUE(base.boundTids_.empty());
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
  EXPECT_GE(general.startTime_, base.startTime_);
}

}  // namespace
}  // namespace ProcMgr::App
