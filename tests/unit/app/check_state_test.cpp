// The state machine, row by row: what a pass makes of a record, what it says in reportState_, what
// it logs and whom it signals.

#include "app/app_info.h"
#include "tests/support/children.h"
#include "tests/support/test.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using enum ProcessState;
using enum ReportAppStateType;
using PmTest::WaitingChild;
using std::chrono::nanoseconds;

constexpr pid_t kPid = 4242;  // Of a record that no row signals.
constexpr int kCode0 = 0;
constexpr int kCode3 = 3 << 8;
constexpr int kEio = 125 << 8;
constexpr int kTerm = SIGTERM;
constexpr int kCore = SIGSEGV | 0x80;

constexpr auto kAbnormal = TERMINATED_ABNORMAL_EXIT;
constexpr auto kNothing = INVALID_INTERMEDIATE_STATE;
constexpr auto kLast = RUNNING_NORMAL_RESTART;  // What stands in a record before the pass.

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
  app.reportState_ = kLast;
  app.isTerminatedByEio_ = true;
  if (exitStatus) {
    app.SetExitStatus(*exitStatus);
  }
  (void)TakeLog();
  return app;
}

// A general record that is restarting has its new process already.
enum class Who { kBoth, kBase, kReporting, kGeneral };

struct Row {
  Who who;
  ProcessState state;
  std::optional<int> exitStatus;
  ProcessState next;
  ReportAppStateType report;
  std::string log = {};  // The move, "FROM to TO", or a whole line.
  bool isEio = false;
};

// The line of the move, and with it, if the process has ended, the one that says how.
Lines ExpectedLog(const Row& row) {
  if (row.log.find(" to ") == std::string::npos) {
    return row.log.empty() ? Lines{} : Lines{row.log};
  }
  Lines log = {"I PROCMGR : " + row.log + " appName=svc, pid=4242"};
  if (row.exitStatus) {
    LogExitStatus(*row.exitStatus, "svc", kPid);
    const Lines exit = TakeLog();
    log.insert(row.state == TERMINATING ? log.end() : log.begin(), exit.begin(), exit.end());
  }
  return log;
}

template <typename Record>
void CheckRow(const Row& row, Record app) {
  const Lines log = ExpectedLog(row);
  EXPECT_EQ(Check(app), row.next);
  EXPECT_EQ(app.state_, row.state) << "the caller stores the state";
  EXPECT_EQ(app.reportState_, row.report);
  EXPECT_EQ(app.isTerminatedByEio_, row.isEio);
  EXPECT_EQ(app.pid_, kPid);
  EXPECT_EQ(TakeLog(), log);
}

TEST(CheckState, EveryStateWithAndWithoutAnExit) {
  using enum Who;
  const std::string unexpected = "E PROCMGR : Process svc got unexpected ";
  const std::string startEnded = "STARTING to TERMINATED";
  const std::string ended = "RUNNING to TERMINATED";
  const std::string gone = "TERMINATING to TERMINATED";
  const std::string restartEnded = "RESTARTING to TERMINATED";
  const Row rows[] = {
      {kBoth, INITSTATE, {}, INITSTATE, kNothing, unexpected + "state=0"},
      {kBoth, STARTING, {}, RUNNING, RUNNING_NORMAL_START, "STARTING to RUNNING"},
      {kBoth, STARTING, kCode0, TERMINATED, kAbnormal, startEnded},
      {kBoth, STARTING, kEio, TERMINATED, kAbnormal, startEnded, true},
      // Its own report alone lets it run.
      {kReporting, STARTING, {}, STARTING, kNothing},
      {kReporting, STARTING, kCode3, TERMINATED, kAbnormal, startEnded},
      {kBoth, RUNNING, {}, RUNNING, kNothing},
      {kBoth, RUNNING, kCode3, TERMINATED, kAbnormal, ended},
      {kBoth, RUNNING, kEio, TERMINATED, kAbnormal, ended, true},
      {kBoth, RUNNING, kCore, TERMINATED, kAbnormal, ended},
      // Bits 8 to 15 of a death by signal are no exit code.
      {kBoth, RUNNING, kEio | kTerm, TERMINATED, kAbnormal, ended},
      // Whatever ends a service that said that it was going, the end is normal.
      {kBase, TERMINATING, {}, TERMINATING, kNothing},
      {kBase, TERMINATING, kTerm, TERMINATED, TERMINATED_NORMAL_EXIT, gone},
      {kBase, TERMINATING, kEio, TERMINATED, TERMINATED_NORMAL_EXIT, gone},
      // An exit is on file, or a restart has failed.
      {kBase, TERMINATED, kEio, TERMINATED, kAbnormal, unexpected + "TERMINATED state"},
      {kBase, TERMINATED, {}, TERMINATED, kAbnormal, unexpected + "TERMINATED state"},
      // The last report stays.
      {kGeneral, TERMINATED, kEio, TERMINATED, kLast, unexpected + "TERMINATED state"},
      {kBase, RESTARTING, {}, RESTARTING, kNothing, unexpected + "state=5"},
      {kGeneral, RESTARTING, {}, RUNNING, RUNNING_NORMAL_RESTART},
      {kGeneral, RESTARTING, kCode0, TERMINATED, kAbnormal, restartEnded},
      {kGeneral, RESTARTING, kEio, TERMINATED, kAbnormal, restartEnded, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    if (row.who != kGeneral) {
      auto app = MakeRecord<BaseAppInfo>(row.state, row.exitStatus);
      app.isReporting_ = row.who == kReporting;
      CheckRow(row, app);
    }
    if (row.who == kBoth || row.who == kGeneral) {
      auto app = MakeRecord<GeneralAppInfo>(row.state, row.exitStatus);
      app.isRestartStarted_ = 1;
      CheckRow(row, app);
    }
  }
}

template <typename Record>
class CheckStateOfBoth : public ::testing::Test {};
using BothKinds = ::testing::Types<BaseAppInfo, GeneralAppInfo>;
TYPED_TEST_SUITE(CheckStateOfBoth, BothKinds);

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
      {"on-failure", "iammgr", kCode0, kAbnormal},
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
    EXPECT_EQ(std::count(log.begin(), log.end(), "I PROCMGR : non resident app=svc normal exit"),
              row.report == TERMINATED_NORMAL_EXIT ? 1 : 0);
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

// The kinds differ in what such a pass leaves behind.
TYPED_TEST(CheckStateOfBoth, WithoutAPidNothingMoves) {
  constexpr bool kIsBase = std::is_same_v<TypeParam, BaseAppInfo>;
  for (const pid_t pid : {0, -1}) {
    auto app = MakeRecord<TypeParam>(RUNNING, kCode0);
    app.pid_ = pid;
    EXPECT_EQ(Check(app), RUNNING);
    EXPECT_EQ(app.reportState_, kIsBase ? kNothing : kLast);
    EXPECT_EQ(app.isTerminatedByEio_, !kIsBase);
    EXPECT_EQ(TakeLog(), Lines{"E CheckState : pid <= 0, don't call waitpid(), currentState=2"});
  }
}

// Both waits for an old process: for the end of an application and for the end before a restart.
TEST(GeneralCheckState, TermTimeOut) {
  constexpr nanoseconds kTick{1};
  constexpr milliseconds k100(100);
  constexpr milliseconds kLong(UINT32_MAX);
  const std::string name = "svc, pid=#";
  struct {
    ProcessState state;
    milliseconds timeOut;
    nanoseconds elapsed;
    bool isForceTerm, isKillSent;
    ProcessState next;
    bool isKilled = false;
  } const rows[] = {
      // The kill allowed: in time, at the time-out, without any time, and when it was sent before.
      {TERMINATING, k100, k100 - kTick, true, false, TERMINATING},
      {TERMINATING, k100, k100, true, false, TERMINATING, true},
      {TERMINATING, milliseconds(0), milliseconds(0), true, false, TERMINATING, true},
      {TERMINATING, k100, 5 * k100, true, true, TERMINATING},
      {TERMINATING, kLong, kLong - kTick, true, false, TERMINATING},
      {TERMINATING, kLong, kLong, true, false, TERMINATING, true},
      // Not allowed: back to RUNNING.
      {TERMINATING, k100, k100 - kTick, false, false, TERMINATING},
      {TERMINATING, k100, k100, false, false, RUNNING},
      // A restart kills, allowed or not.
      {RESTARTING, k100, k100 - kTick, false, false, RESTARTING},
      {RESTARTING, k100, k100, false, false, RESTARTING, true},
      {RESTARTING, k100, 5 * k100, true, true, RESTARTING},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    WaitingChild child;
    auto app = MakeRecord<GeneralAppInfo>(row.state);
    app.pid_ = child.Pid();
    app.termTimeOut_ = static_cast<std::uint32_t>(row.timeOut.count());
    app.termBeginTime_ = Now();
    app.isForceTerm_ = row.isForceTerm;
    app.isKillSent_ = row.isKillSent;
    const SteadyTime now = Now() + row.elapsed;
    EXPECT_EQ(app.CheckStateAt(now), row.next);
    EXPECT_EQ(app.reportState_, row.next == RUNNING ? RUNNING_ABNORMAL_TERM_TIMEOUT : kNothing);
    EXPECT_EQ(app.isKillSent_, row.isKillSent || row.isKilled);
    EXPECT_FALSE(app.isTerminatedByEio_);
    Lines log;
    if (row.next == RUNNING) {
      log = {"I PROCMGR : term timeout and forecTerm is false, so not kill appName=" + name +
             "TERMINATING to RUNNING"};
    } else if (row.isKilled) {
      log = {"I PROCMGR : term timeout and forecTerm is true, so kill appName=" + name +
                 ",TERMINATING to TERMINATED",
             "I PROCMGR : SendSignal: 9 to app=" + name,
             "I PROCMGR : SendSignal: Successfully kill appName=" + name};
      log.erase(log.begin(), log.begin() + (row.state == RESTARTING ? 1 : 0));
    }
    EXPECT_EQ(MaskedLog(), log);

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
    EXPECT_THAT(TakeLog(), testing::Contains("I PROCMGR : TERMINATING to TERMINATED. "
                                             "(appName=svc,pid=4242,cost=1)"));
  }
}

TEST(GeneralCheckState, RestartStartsTheNewProcessWhenTheOldHasGone) {
  auto app = MakeRecord<GeneralAppInfo>(RESTARTING, kCore);
  app.execPath_ = "/bin/true";
  app.isForceTerm_ = true;
  app.savedForceTerm_ = false;
  app.isKillSent_ = true;
  EXPECT_EQ(app.CheckState(), RESTARTING);
  EXPECT_EQ(app.reportState_, kNothing);
  EXPECT_EQ(app.isRestartStarted_, 1U);
  EXPECT_FALSE(app.isForceTerm_);
  EXPECT_FALSE(app.isKillSent_);
  EXPECT_FALSE(app.isExited_);
  ASSERT_NE(app.pid_, kPid);
  EXPECT_EQ(app.CheckState(), RUNNING);
  EXPECT_EQ(app.reportState_, RUNNING_NORMAL_RESTART);
  EXPECT_EQ(TakeLog().size(), 1U) << "of the start, and none of the pass behind it";
  EXPECT_EQ(PmTest::Reap(app.pid_), 0);
}

TEST(GeneralCheckState, RestartThatCanNotStartEndsTheRecord) {
  auto app = MakeRecord<GeneralAppInfo>(RESTARTING, kCode0);
  app.execPath_ = "/nonexistent/program";
  app.isForceTerm_ = true;
  app.isKillSent_ = true;
  EXPECT_EQ(app.CheckState(), TERMINATED);
  EXPECT_FALSE(app.isForceTerm_) << "the kill was allowed for the restart alone";
  EXPECT_EQ(app.reportState_, kAbnormal);
  EXPECT_EQ(app.isRestartStarted_, 0U);
  EXPECT_FALSE(app.isKillSent_);
  EXPECT_EQ(app.pid_, kPid);
  EXPECT_EQ(LastLine(), "I PROCMGR : RESTARTING to TERMINATED appName=svc, pid=#");
}

}  // namespace
}  // namespace ProcMgr::App
