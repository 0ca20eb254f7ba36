// How a process ends, is ended, is looked at, and who may return.
#include "app/app_info.h"
#include "tests/support/children.h"
#include "tests/support/test.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using PmTest::WaitingChild;

constexpr pid_t kNoProcess = 4'194'305;  // Above every pid that the kernel gives.

GeneralAppInfo RecordOf(pid_t pid) {
  GeneralAppInfo app;
  app.appName_ = "svc";
  app.pid_ = pid;
  (void)TakeLog();
  return app;
}

TEST(LogExitStatus, TellsHowAProcessEnded) {
  const std::string process = "PROCMGR : Process=svc, pid=# ";
  const std::string unexpected = "W " + process + "was unexpectedly terminated";
  struct {
    int status;
    std::string line;
  } const rows[] = {
      {125 << 8, "W " + process + "was self terminated, the exit status is 125."},
      {0x7f, unexpected},
      {0xff, unexpected},
      {0xffff, unexpected},
      {(SIGSTOP << 8) | 0x7f, unexpected},
      {SIGABRT | 0x80, "E PROCMGR: Process=svc, pid=# was coredump"},
      {SIGABRT, "W " + process + "terminated by calling abort(), signal=6"},
      {SIGSTOP, "W " + process + "stopped by signal=19"},
      {SIGHUP, "E " + process + "got unexpected signal=1"},
      {SIGRTMAX, "E " + process + "got unexpected signal=64"},
  };
  (void)TakeLog();
  for (const auto& row : rows) {
    LogExitStatus(row.status, "svc", 7);
    EXPECT_EQ(MaskedLog(), Lines{row.line}) << "status " << row.status;
  }
}

TEST(SendSignal, RefusesWhatIsNoProcess) {
  for (const pid_t pid : {0, -1, -4242}) {  // To kill they are groups, or everybody.
    (void)TakeLog();
    EXPECT_FALSE(SendSignal(SIGCONT, "svc", pid));
    EXPECT_EQ(TakeLog(), Lines{"E PROCMGR : SendSignal failed: appName svc's pid=" +
                               std::to_string(pid) + " is invalid"});
    EXPECT_FALSE(RecordOf(pid).TermProcess());
  }
  EXPECT_FALSE(SendSignal(SIGCONT, "svc", kNoProcess));
  EXPECT_EQ(LastLine(), "E PROCMGR : SendSignal failed: kill failed appName=svc, pid=#, errno=3");
}

TEST(TermProcess, AsksTheProcessToEndWhetherItIsThereOrNot) {
  WaitingChild child;
  EXPECT_TRUE(RecordOf(child.Pid()).TermProcess());
  EXPECT_EQ(child.Reap(), SIGTERM);
  const Lines expected = {"I PROCMGR : SendSignal: 15 to app=svc, pid=#",
                          "I PROCMGR : SendSignal: Successfully term appName=svc, pid=#"};
  EXPECT_EQ(MaskedLog(), expected);
  EXPECT_TRUE(RecordOf(kNoProcess).TermProcess()) << "left to its exit status";
}

// Once its exit is on file the pid may be a stranger's.
TEST(TermProcess, NeverSignalsARecordWhoseExitIsOnFile) {
  WaitingChild stranger;
  GeneralAppInfo app = RecordOf(stranger.Pid());
  app.SetExitStatus(0);
  (void)TakeLog();
  EXPECT_TRUE(app.TermProcess());
  const Lines expected = {"I PROCMGR : SendSignal: 15 to app=svc, pid=#",
                          "E PROCMGR : SendSignal failed: kill failed appName=svc, pid=#, errno=3"};
  EXPECT_EQ(MaskedLog(), expected) << "the lines of a signal that finds nobody";
  EXPECT_EQ(app.ProbeProcess(), 1);
  ASSERT_EQ(kill(stranger.Pid(), SIGINT), 0);
  EXPECT_EQ(stranger.Reap(), SIGINT) << "another signal has come first";
}

TEST(ProbeProcess, LooksAndTakesNothingAway) {
  WaitingChild child;
  const GeneralAppInfo app = RecordOf(child.Pid());
  EXPECT_EQ(app.ProbeProcess(), 0);
  child.Change(SIGSTOP, WSTOPPED);
  EXPECT_EQ(app.ProbeProcess(), 2);
  EXPECT_EQ(app.ProbeProcess(), 2) << "it is still stopped";
  EXPECT_EQ(MaskedLog(), Lines(2, "I PROCMGR : app=svc, pid=#, stopped"));
  child.Change(SIGCONT, WCONTINUED);
  EXPECT_EQ(app.ProbeProcess(), 0);
  child.Change(SIGKILL, WEXITED);
  EXPECT_EQ(app.ProbeProcess(), 0) << "the exit isn't known yet";
  EXPECT_EQ(child.Reap(), SIGKILL) << "the exit is the reaper's";
  EXPECT_EQ(app.ProbeProcess(), 1);
  for (const pid_t pid : {0, -1, 1, kNoProcess}) {
    EXPECT_EQ(RecordOf(pid).ProbeProcess(), 1) << pid;
  }
}

using std::chrono::nanoseconds;

BaseAppInfo RecordWith(const std::string& restart) {
  ApplicationManifest::Fields fields;
  fields.appName = "svc";
  fields.restart = restart;
  return BaseAppInfo(ApplicationManifest(fields));
}

TEST(RestartWindow, SixthIsRefusedWithinTheWindowAndGrantedBehindIt) {
  const SteadyTime start = SteadyNow();
  constexpr nanoseconds kWindow{60'001'000'000};
  for (const nanoseconds gap : {nanoseconds(milliseconds(5)), kWindow - nanoseconds(1), kWindow}) {
    SCOPED_TRACE(gap.count());
    BaseAppInfo app = RecordWith("on-failure");
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(app.CheckRestartAt(start + milliseconds(i))) << i;
    }
    (void)TakeLog();
    const bool isGranted = gap >= kWindow;
    EXPECT_EQ(app.CheckRestartAt(start + gap), isGranted);
    EXPECT_EQ(app.restartTimes_.size(), 5U) << "the oldest is forgotten";
    EXPECT_EQ(app.restart_, isGranted ? "on-failure" : "no");
    if (!isGranted) {
      EXPECT_EQ(TakeLog(),
                Lines{"E PROCMGR : Process=svc has restart 5 times in recent 60000 ms."});
      EXPECT_FALSE(app.CheckRestartAt(start + std::chrono::hours(1))) << "the refusal is final";
    }
  }
}

// The window slides: what counts is the oldest of the last five, not the first of all.
TEST(RestartWindow, SlidesWithEachRestart) {
  BaseAppInfo app = RecordWith("on-failure");
  SteadyTime now = SteadyNow();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(app.CheckRestartAt(now)) << i;
    now += milliseconds(12'001);
  }
  EXPECT_FALSE(app.CheckRestartAt(now - milliseconds(12'001)));
}

TEST(RestartPolicy, Words) {
  struct {
    const char* word;
    bool isRestarted;
    int granted;  // Of a hundred restarts at once.
  } const rows[] = {
      {"on-failure", true, 5},
      {"on-forever", true, 100},
      {"on-until-succeed", false, 0},
      {"no", false, 0},
      {"", false, 0},
      {"On-Failure", false, 0},
      {"on-failure ", false, 0},
  };
  const SteadyTime now = SteadyNow();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.word);
    BaseAppInfo app = RecordWith(row.word);
    EXPECT_EQ(app.IsRestartKept(), row.isRestarted);
    int granted = 0;
    for (int i = 0; i < 100; ++i) {
      granted += app.CheckRestartAt(now) ? 1 : 0;
    }
    EXPECT_EQ(granted, row.granted);
  }
}

}  // namespace
}  // namespace ProcMgr::App
