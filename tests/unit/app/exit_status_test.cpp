#include <gtest/gtest.h>

#include "app/app_info.h"
#include "tests/unit/app/children.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

constexpr pid_t kNoProcess = 4'194'305;  // Above every pid that the kernel gives.

GeneralAppInfo RecordOf(pid_t pid) {
  GeneralAppInfo app;
  app.appName_ = "svc";
  app.pid_ = pid;
  return app;
}

std::string WithPid(std::string text, pid_t pid) {
  const std::size_t at = text.find('#');
  return at == std::string::npos ? text : text.replace(at, 1, std::to_string(pid));
}

TEST(LogExitStatus, TellsHowAProcessEnded) {
  const std::string process = "PROCMGR : Process=svc, pid=7 ";
  struct {
    int status;
    std::string line;
  } const rows[] = {
      {Exited(0), "W " + process + "was self terminated, the exit status is 0."},
      {Exited(125), "W " + process + "was self terminated, the exit status is 125."},
      {Exited(255), "W " + process + "was self terminated, the exit status is 255."},
      {0x7f, "W " + process + "was unexpectedly terminated"},
      {0xff, "W " + process + "was unexpectedly terminated"},
      {0xffff, "W " + process + "was unexpectedly terminated"},
      {(SIGSTOP << 8) | 0x7f, "W " + process + "was unexpectedly terminated"},
      {SIGABRT | 0x80, "E PROCMGR: Process=svc, pid=7 was coredump"},
      {SIGSEGV | 0x80, "E PROCMGR: Process=svc, pid=7 was coredump"},
      {KilledBy(SIGABRT), "W " + process + "terminated by calling abort(), signal=6"},
      {KilledBy(SIGILL), "W " + process + "terminated by illegal instruction by signal=4"},
      {KilledBy(SIGTRAP), "W " + process + "terminated by trap signal=5"},
      {KilledBy(SIGINT), "W " + process + "terminated by interrupt signal=2"},
      {KilledBy(SIGTERM), "W " + process + "terminated by calling Term(), signal=15"},
      {SIGSTOP, "W " + process + "stopped by signal=19"},
      {KilledBy(SIGKILL), "W " + process + "terminated by calling Kill(), signal=9"},
      {KilledBy(SIGSEGV), "E " + process + "got unexpected signal=11"},
      {KilledBy(SIGHUP), "E " + process + "got unexpected signal=1"},
      {KilledBy(SIGRTMAX), "E " + process + "got unexpected signal=64"},
  };
  (void)TakeLog();
  for (const auto& row : rows) {
    LogExitStatus(row.status, "svc", 7);
    EXPECT_EQ(TakeLog(), Lines{row.line}) << "status " << row.status;
  }
}

TEST(SendSignal, SaysWhatBecameOfIt) {
  struct {
    int signal;
    const char* success;
  } const rows[] = {
      {SIGCONT, "Successfully send 18 to appName=svc, pid=#"},
      {SIGINT, "Successfully interrupt appName=svc, pid=#"},
      {SIGTERM, "Successfully term appName=svc, pid=#"},
      {SIGKILL, "Successfully kill appName=svc, pid=#"},
  };
  for (const auto& row : rows) {
    WaitingChild child;
    (void)TakeLog();
    EXPECT_TRUE(SendSignal(row.signal, "svc", child.Pid()));
    const Lines expected = {
        WithPid("I PROCMGR : SendSignal: " + std::to_string(row.signal) + " to app=svc, pid=#",
                child.Pid()),
        WithPid("I PROCMGR : SendSignal: " + std::string(row.success), child.Pid())};
    EXPECT_EQ(TakeLog(), expected);
    if (row.signal != SIGCONT) {
      EXPECT_EQ(child.Reap(), row.signal);
    }
  }
}

TEST(SendSignal, RefusesWhatIsNoProcess) {
  for (const pid_t pid : {0, -1, -4242}) {  // To kill they are groups, or everybody.
    EXPECT_FALSE(SendSignal(SIGCONT, "svc", pid));
    EXPECT_EQ(TakeLog(),
              Lines{WithPid("E PROCMGR : SendSignal failed: appName svc's pid=# is invalid", pid)});
  }
  EXPECT_FALSE(SendSignal(SIGCONT, "svc", kNoProcess));
  const Lines expected = {
      "I PROCMGR : SendSignal: 18 to app=svc, pid=4194305",
      "E PROCMGR : SendSignal failed: kill failed appName=svc, pid=4194305, errno=3"};
  EXPECT_EQ(TakeLog(), expected);
}

TEST(TermProcess, AsksTheProcessToEndWhetherItIsThereOrNot) {
  WaitingChild child;
  EXPECT_TRUE(RecordOf(child.Pid()).TermProcess());
  EXPECT_EQ(child.Reap(), SIGTERM);
  EXPECT_TRUE(RecordOf(kNoProcess).TermProcess()) << "left to its exit status";
  (void)TakeLog();
  for (const pid_t pid : {0, -1}) {
    EXPECT_FALSE(RecordOf(pid).TermProcess());
    EXPECT_EQ(TakeLog(),
              Lines{WithPid("E PROCMGR : TermProcess failed: the pid=# is invalid", pid)});
  }
}

// Once its exit is on file the pid may be a stranger's.
TEST(TermProcess, NeverSignalsARecordWhoseExitIsOnFile) {
  WaitingChild stranger;
  GeneralAppInfo app = RecordOf(stranger.Pid());
  app.SetExitStatus(0);
  (void)TakeLog();
  EXPECT_TRUE(app.TermProcess());
  EXPECT_EQ(TakeLog(), Lines{WithPid("E PROCMGR : SendSignal failed: kill failed "
                                     "appName=svc, pid=#, errno=3",
                                     stranger.Pid())});
  ASSERT_EQ(kill(stranger.Pid(), SIGINT), 0);
  EXPECT_EQ(stranger.Reap(), SIGINT) << "another signal has come first";
}

TEST(SetExitStatus, FilesTheStatusAsItIs) {
  GeneralAppInfo app = RecordOf(9);
  (void)TakeLog();
  app.SetExitStatus(0x0b80);
  EXPECT_TRUE(app.isExited_);
  EXPECT_EQ(app.exitStatus_, 0x0b80);
  EXPECT_EQ(TakeLog(), Lines{"I PROCMGR : SetExitStatus svc, pid=9"});
}

TEST(ProbeProcess, LooksAndTakesNothingAway) {
  WaitingChild child;
  GeneralAppInfo app = RecordOf(child.Pid());
  (void)TakeLog();
  EXPECT_EQ(app.ProbeProcess(), 0);

  ASSERT_EQ(kill(child.Pid(), SIGSTOP), 0);
  child.Await(WSTOPPED);
  const std::string stopped = WithPid("I PROCMGR : app=svc, pid=#, stopped", child.Pid());
  EXPECT_EQ(app.ProbeProcess(), 2);
  EXPECT_EQ(app.ProbeProcess(), 2) << "it is still stopped";
  const Lines twice = {stopped, stopped};
  EXPECT_EQ(TakeLog(), twice);

  ASSERT_EQ(kill(child.Pid(), SIGCONT), 0);
  child.Await(WCONTINUED);
  EXPECT_EQ(app.ProbeProcess(), 0);

  ASSERT_EQ(kill(child.Pid(), SIGKILL), 0);
  child.Await(WEXITED);
  EXPECT_EQ(app.ProbeProcess(), 0) << "the exit isn't known yet";
  EXPECT_EQ(app.ProbeProcess(), 0);
  EXPECT_EQ(child.Reap(), SIGKILL) << "the exit is the reaper's";
  EXPECT_EQ(app.ProbeProcess(), 1);
  EXPECT_EQ(TakeLog(), Lines{});
}

TEST(ProbeProcess, KnowsNoProcess) {
  for (const pid_t pid : {0, -1, 1, kNoProcess}) {
    EXPECT_EQ(RecordOf(pid).ProbeProcess(), 1) << pid;
  }
  // A child with that pid, but not the record's any more.
  WaitingChild stranger;
  GeneralAppInfo app = RecordOf(stranger.Pid());
  app.SetExitStatus(0);
  EXPECT_EQ(app.ProbeProcess(), 1);
}

}  // namespace
}  // namespace ProcMgr::App
