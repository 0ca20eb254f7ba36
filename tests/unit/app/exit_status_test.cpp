#include <gtest/gtest.h>

#include "app/app_info.h"
#include "tests/support/children.h"
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

}  // namespace
}  // namespace ProcMgr::App
