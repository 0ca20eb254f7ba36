// The state machine, row by row: what a pass makes of a record, what it says in reportState_, what
// it logs and whom it signals.
#include <gtest/gtest.h>

#include <optional>

#include "app/app_info.h"
#include "tests/unit/app/children.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using enum ProcessState;
using enum ReportAppStateType;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr pid_t kPid = 4242;  // Of a record that no row signals.
constexpr int kCode0 = 0;
constexpr int kCode3 = 3 << 8;
constexpr int kEio = 125 << 8;
constexpr int kTerm = SIGTERM;
constexpr int kCore = SIGSEGV | 0x80;

constexpr auto kAbnormal = TERMINATED_ABNORMAL_EXIT;
constexpr auto kNothing = INVALID_INTERMEDIATE_STATE;

const std::string kSelf0 =
    "W PROCMGR : Process=svc, pid=4242 was self terminated, the exit status is 0.";
const std::string kSelf3 =
    "W PROCMGR : Process=svc, pid=4242 was self terminated, the exit status is 3.";
const std::string kSelf125 =
    "W PROCMGR : Process=svc, pid=4242 was self terminated, the exit status is 125.";
const std::string kTermed =
    "W PROCMGR : Process=svc, pid=4242 terminated by calling Term(), signal=15";
const std::string kCoredump = "E PROCMGR: Process=svc, pid=4242 was coredump";
const std::string kFoundTerminated = "E PROCMGR : Process svc got unexpected TERMINATED state";

SteadyTime Now() {
  return SteadyTime{} + std::chrono::hours(1);
}

ProcessState Check(BaseAppInfo& app) {
  return app.CheckState();
}
ProcessState Check(GeneralAppInfo& app) {
  return app.CheckStateAt(Now());
}

// A record in which everything that a pass clears is set.
template <typename Record>
Record MakeRecord(ProcessState state, std::optional<int> exitStatus = {}) {
  Record app = [] {
    if constexpr (std::is_same_v<Record, BaseAppInfo>) {
      return BaseAppInfo(ApplicationManifest{});
    } else {
      return GeneralAppInfo{};
    }
  }();
  app.appName_ = "svc";
  app.pid_ = kPid;
  app.state_ = state;
  app.reportState_ = RUNNING_NORMAL_RESTART;
  app.isTerminatedByEio_ = true;
  if (exitStatus) {
    app.SetExitStatus(*exitStatus);
  }
  (void)TakeLog();
  return app;
}

struct Row {
  const char* name;
  ProcessState state;
  std::optional<int> exitStatus;
  ProcessState next;
  ReportAppStateType report;
  Lines log;
  bool isEio = false;
};

template <typename Record>
void CheckRow(const Row& row, Record app) {
  SCOPED_TRACE(row.name);
  EXPECT_EQ(Check(app), row.next);
  EXPECT_EQ(app.state_, row.state) << "the caller stores the state";
  EXPECT_EQ(app.reportState_, row.report);
  EXPECT_EQ(app.isTerminatedByEio_, row.isEio);
  EXPECT_EQ(app.pid_, kPid);
  EXPECT_EQ(TakeLog(), row.log);
}

template <typename Record>
class CheckStateOfBoth : public ::testing::Test {};
using BothKinds = ::testing::Types<BaseAppInfo, GeneralAppInfo>;
TYPED_TEST_SUITE(CheckStateOfBoth, BothKinds);

TYPED_TEST(CheckStateOfBoth, StartingAndRunning) {
  const std::string started = "I PROCMGR : STARTING to RUNNING appName=svc, pid=4242";
  const std::string startEnded = "I PROCMGR : STARTING to TERMINATED appName=svc, pid=4242";
  const std::string ended = "I PROCMGR : RUNNING to TERMINATED appName=svc, pid=4242";
  const std::string unexpected = "E PROCMGR : Process svc got unexpected state=0";
  // The last row: bits 8 to 15 of a death by signal are no exit code.
  const Row rows[] = {
      {"alive", STARTING, {}, RUNNING, RUNNING_NORMAL_START, {started}},
      {"code 0", STARTING, kCode0, TERMINATED, kAbnormal, {kSelf0, startEnded}},
      {"EIO", STARTING, kEio, TERMINATED, kAbnormal, {kSelf125, startEnded}, true},
      {"alive", RUNNING, {}, RUNNING, kNothing, {}},
      {"code 3", RUNNING, kCode3, TERMINATED, kAbnormal, {kSelf3, ended}},
      {"code 125", RUNNING, kEio, TERMINATED, kAbnormal, {kSelf125, ended}, true},
      {"core dump", RUNNING, kCore, TERMINATED, kAbnormal, {kCoredump, ended}},
      {"no process yet", INITSTATE, {}, INITSTATE, kNothing, {unexpected}},
      {"signal", RUNNING, kEio | kTerm, TERMINATED, kAbnormal, {kTermed, ended}},
  };
  for (const Row& row : rows) {
    CheckRow(row, MakeRecord<TypeParam>(row.state, row.exitStatus));
  }
}

TYPED_TEST(CheckStateOfBoth, NonResidentServiceMayEnd) {
  struct {
    const char* restart;
    const char* owner;
    int status;
    ReportAppStateType report;
  } const rows[] = {
      {"on-until-succeed", "iammgr", kCode0, TERMINATED_NORMAL_EXIT},
      {"on-until-succeed", "iammgr", kCode3, kAbnormal},
      {"on-until-succeed", "iammgr", kTerm, kAbnormal},
      {"on-until-succeed", "ventrix", kCode0, kAbnormal},
      {"on-until-succeed", "", kCode0, kAbnormal},
      {"on-failure", "iammgr", kCode0, kAbnormal},
      {"no", "iammgr", kCode0, kAbnormal},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.restart) + " of '" + row.owner + "' with status " +
                 std::to_string(row.status));
    auto app = MakeRecord<TypeParam>(RUNNING, row.status);
    app.restart_ = row.restart;
    app.ownerName_ = row.owner;
    EXPECT_EQ(Check(app), TERMINATED);
    EXPECT_EQ(app.reportState_, row.report);
    const Lines log = TakeLog();
    const bool isTold = std::find(log.begin(), log.end(),
                                  "I PROCMGR : non resident app=svc normal exit") != log.end();
    EXPECT_EQ(isTold, row.report == TERMINATED_NORMAL_EXIT);
  }
}

// The flag belongs to the pass that saw the exit; a report of a later pass mustn't carry it.
TYPED_TEST(CheckStateOfBoth, EioFlagLastsOnePass) {
  auto app = MakeRecord<TypeParam>(STARTING, kEio);
  app.state_ = Check(app);
  EXPECT_TRUE(app.isTerminatedByEio_);
  EXPECT_EQ(Check(app), TERMINATED);
  EXPECT_FALSE(app.isTerminatedByEio_);
}

TEST(BaseCheckState, RowsOfItsOwn) {
  const std::string ended = "I PROCMGR : TERMINATING to TERMINATED appName=svc, pid=4242";
  const std::string unexpected = "E PROCMGR : Process svc got unexpected state=5";
  // Whatever ends a service that said that it was going, the end is normal.
  const Row rows[] = {
      {"going", TERMINATING, {}, TERMINATING, kNothing, {}},
      {"signal", TERMINATING, kTerm, TERMINATED, TERMINATED_NORMAL_EXIT, {ended, kTermed}},
      {"code 125", TERMINATING, kEio, TERMINATED, TERMINATED_NORMAL_EXIT, {ended, kSelf125}},
      {"exit on file", TERMINATED, kEio, TERMINATED, kAbnormal, {kFoundTerminated}},
      {"failed restart", TERMINATED, {}, TERMINATED, kAbnormal, {kFoundTerminated}},
      {"state of the other kind", RESTARTING, {}, RESTARTING, kNothing, {unexpected}},
  };
  for (const Row& row : rows) {
    CheckRow(row, MakeRecord<BaseAppInfo>(row.state, row.exitStatus));
  }
}

TEST(BaseCheckState, ReportingServiceLeavesStartingByItsReportOrItsEnd) {
  auto app = MakeRecord<BaseAppInfo>(STARTING);
  app.isReporting_ = true;
  EXPECT_EQ(app.CheckState(), STARTING);
  EXPECT_EQ(app.reportState_, kNothing);
  EXPECT_EQ(TakeLog(), Lines{});
  app.SetExitStatus(kCode3);
  EXPECT_EQ(app.CheckState(), TERMINATED);
  EXPECT_EQ(app.reportState_, kAbnormal);
}

TEST(GeneralCheckState, RowsOfItsOwn) {
  const Row found = {"the report of the pass before stays",
                     TERMINATED,
                     kEio,
                     TERMINATED,
                     RUNNING_NORMAL_RESTART,
                     {kFoundTerminated}};
  CheckRow(found, MakeRecord<GeneralAppInfo>(TERMINATED, kEio));
  const std::string ended = "I PROCMGR : RESTARTING to TERMINATED appName=svc, pid=4242";
  const Row rows[] = {
      {"new process", RESTARTING, {}, RUNNING, RUNNING_NORMAL_RESTART, {}},
      {"code 0", RESTARTING, kCode0, TERMINATED, kAbnormal, {kSelf0, ended}},
      {"EIO", RESTARTING, kEio, TERMINATED, kAbnormal, {kSelf125, ended}, true},
  };
  for (const Row& row : rows) {
    auto app = MakeRecord<GeneralAppInfo>(row.state, row.exitStatus);
    app.isRestartStarted_ = 1;
    CheckRow(row, app);
  }
}

// The kinds differ in what such a pass leaves behind.
TEST(CheckState, WithoutAPidNothingMoves) {
  for (const pid_t pid : {0, -1}) {
    auto base = MakeRecord<BaseAppInfo>(RUNNING, kCode0);
    base.pid_ = pid;
    EXPECT_EQ(base.CheckState(), RUNNING);
    EXPECT_EQ(base.reportState_, kNothing);
    EXPECT_FALSE(base.isTerminatedByEio_);
    const Lines line{"E CheckState : pid <= 0, don't call waitpid(), currentState=2"};
    EXPECT_EQ(TakeLog(), line);

    auto general = MakeRecord<GeneralAppInfo>(RUNNING, kCode0);
    general.pid_ = pid;
    EXPECT_EQ(general.CheckStateAt(Now()), RUNNING);
    EXPECT_EQ(general.reportState_, RUNNING_NORMAL_RESTART);
    EXPECT_TRUE(general.isTerminatedByEio_);
    EXPECT_EQ(TakeLog(), line);
  }
}

// Both waits for an old process: for the end of an application and for the end before a restart.
struct WaitRow {
  ProcessState state;
  std::uint32_t timeOutMs;
  nanoseconds elapsed;
  bool isForceTerm;
  bool isKillSent;
  ProcessState next;
  bool isKilled;
  Lines log;
};

TEST(GeneralCheckState, TermTimeOut) {
  constexpr nanoseconds kTick{1};
  const std::string name = "svc, pid=#";
  const Lines killed = {"I PROCMGR : SendSignal: 9 to app=" + name,
                        "I PROCMGR : SendSignal: Successfully kill appName=" + name};
  const Lines killForced = {"I PROCMGR : term timeout and forecTerm is true, so kill appName=" +
                                name + ",TERMINATING to TERMINATED",
                            killed[0], killed[1]};
  const Lines notKilled = {"I PROCMGR : term timeout and forecTerm is false, so not kill appName=" +
                           name + "TERMINATING to RUNNING"};
  constexpr milliseconds kLong(UINT32_MAX);
  const WaitRow rows[] = {
      // The kill allowed: in time, at the time-out, without any time, and when it was sent before.
      {TERMINATING, 100, milliseconds(100) - kTick, true, false, TERMINATING, false, {}},
      {TERMINATING, 100, milliseconds(100), true, false, TERMINATING, true, killForced},
      {TERMINATING, 0, milliseconds(0), true, false, TERMINATING, true, killForced},
      {TERMINATING, 100, milliseconds(500), true, true, TERMINATING, false, {}},
      {TERMINATING, UINT32_MAX, kLong - kTick, true, false, TERMINATING, false, {}},
      {TERMINATING, UINT32_MAX, kLong, true, false, TERMINATING, true, killForced},
      // Not allowed: back to RUNNING.
      {TERMINATING, 100, milliseconds(100) - kTick, false, false, TERMINATING, false, {}},
      {TERMINATING, 100, milliseconds(100), false, false, RUNNING, false, notKilled},
      // A restart kills, allowed or not.
      {RESTARTING, 100, milliseconds(100) - kTick, false, false, RESTARTING, false, {}},
      {RESTARTING, 100, milliseconds(100), false, false, RESTARTING, true, killed},
      {RESTARTING, 100, milliseconds(500), true, true, RESTARTING, false, {}},
  };
  for (const WaitRow& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    WaitingChild child;
    auto app = MakeRecord<GeneralAppInfo>(row.state);
    app.pid_ = child.Pid();
    app.termTimeOut_ = row.timeOutMs;
    app.termBeginTime_ = Now();
    app.isForceTerm_ = row.isForceTerm;
    app.isKillSent_ = row.isKillSent;
    const SteadyTime now = Now() + row.elapsed;
    EXPECT_EQ(app.CheckStateAt(now), row.next);
    EXPECT_EQ(app.reportState_, row.next == RUNNING ? RUNNING_ABNORMAL_TERM_TIMEOUT : kNothing);
    EXPECT_EQ(app.isKillSent_, row.isKillSent || row.isKilled);
    EXPECT_FALSE(app.isTerminatedByEio_);
    EXPECT_EQ(MaskedLog(), row.log);

    if (app.isKillSent_) {
      EXPECT_EQ(app.CheckStateAt(now + std::chrono::hours(1)), row.next);
      EXPECT_EQ(TakeLog(), Lines{}) << "the kill is sent once";
    }
    // Comes too late for a process that was killed, and shows that another wasn't.
    ASSERT_EQ(kill(child.Pid(), SIGTERM), 0);
    EXPECT_EQ(child.Reap(), row.isKilled ? SIGKILL : SIGTERM);
  }
}

TEST(GeneralCheckState, ExitWhileTerminatingIsNormalWhateverKilledIt) {
  for (const int status : {kCode0, kEio, static_cast<int>(SIGKILL), kCore}) {
    SCOPED_TRACE(status);
    auto app = MakeRecord<GeneralAppInfo>(TERMINATING, status);
    app.isKillSent_ = true;
    app.isForceTerm_ = false;
    app.termBeginTime_ = Now() - nanoseconds(1'999'999);
    EXPECT_EQ(app.CheckStateAt(Now()), TERMINATED);
    EXPECT_EQ(app.reportState_, TERMINATED_NORMAL_EXIT);
    EXPECT_FALSE(app.isKillSent_);
    EXPECT_FALSE(app.isTerminatedByEio_);
    const Lines log = TakeLog();
    ASSERT_EQ(log.size(), 2U);
    EXPECT_EQ(log[0], "I PROCMGR : TERMINATING to TERMINATED. (appName=svc,pid=4242,cost=1)");
    LogExitStatus(status, "svc", kPid);
    EXPECT_EQ(Lines{log[1]}, TakeLog());
  }
}

TEST(GeneralCheckState, RestartStartsTheNewProcessWhenTheOldHasGone) {
  auto app = MakeRecord<GeneralAppInfo>(RESTARTING, kCore);
  app.execPath_ = "/bin/true";
  app.isForceTerm_ = true;
  app.savedForceTerm_ = false;
  app.isKillSent_ = true;
  app.boundTids_ = {1, 2};
  app.isDelayCoreAffinity_ = true;
  const SteadyTime before = SteadyNow();
  EXPECT_EQ(app.CheckState(), RESTARTING);
  EXPECT_EQ(app.reportState_, kNothing);
  EXPECT_EQ(app.isRestartStarted_, 1U);
  EXPECT_FALSE(app.isForceTerm_);
  EXPECT_FALSE(app.isKillSent_);
  EXPECT_FALSE(app.isExited_);
  EXPECT_EQ(app.exitStatus_, kCore);
  EXPECT_TRUE(app.boundTids_.empty());
  EXPECT_FALSE(app.isDelayCoreAffinity_) << "there are no cores to bind to later";
  EXPECT_GE(app.startTime_, before);
  ASSERT_NE(app.pid_, kPid);
  EXPECT_EQ(MaskedLog(), Lines{"I [TRACE] Start generalApp success appName=svc, child_pid=#, "
                               "isDelayCoreAffinity_=0"});

  EXPECT_EQ(app.CheckState(), RUNNING);
  EXPECT_EQ(app.reportState_, RUNNING_NORMAL_RESTART);
  EXPECT_EQ(TakeLog(), Lines{});
  int status = -1;
  EXPECT_EQ(waitpid(app.pid_, &status, 0), app.pid_);
  EXPECT_EQ(status, 0);
}

TEST(GeneralCheckState, RestartThatCanNotStartEndsTheRecord) {
  auto app = MakeRecord<GeneralAppInfo>(RESTARTING, kCode0);
  app.execPath_ = "/nonexistent/program";
  app.isKillSent_ = true;
  EXPECT_EQ(app.CheckState(), TERMINATED);
  EXPECT_EQ(app.reportState_, kAbnormal);
  EXPECT_EQ(app.isRestartStarted_, 0U);
  EXPECT_FALSE(app.isKillSent_);
  EXPECT_EQ(app.pid_, kPid);
  const Lines expected = {
      "E PROCMGR : Start App=svc failed, binPath=/nonexistent/program is not existed !!!",
      "I PROCMGR : RESTARTING to TERMINATED appName=svc, pid=4242"};
  EXPECT_EQ(TakeLog(), expected);
}

}  // namespace
}  // namespace ProcMgr::App
