#include "base/fork_locks.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>

#include "base/user_lookup.h"
#include "core/log.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"

namespace {

// What a child does that needs the locks, ended by the alarm clock if one of them is never free.
[[noreturn]] void UseTheLocksInTheChild() {
  alarm(60);
  std::array<gid_t, 64> groups{};
  int count = static_cast<int>(groups.size());
  if (getgrouplist("root", 0, groups.data(), &count) < 1) {
    _exit(1);
  }
  if (ProcMgr::FindUserId("root") != uid_t{0}) {
    _exit(2);
  }
  ProcMgr::LogDebug("a line from a child");
  _exit(0);
}

// Forks `count` children one after another. Yields how the first that failed did, empty if none.
std::string ForkChildren(int count) {
  for (int i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      UseTheLocksInTheChild();
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) {
      return "no child at fork " + std::to_string(i);
    }
    if (status != 0) {
      return "child " + std::to_string(i) + " ended with status " + std::to_string(status) +
             (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? ": it hung" : "");
    }
  }
  return "";
}

TEST(ForkLocks, ChildrenForkedAmongBusyThreadsFindEveryLockFree) {
  constexpr int kForksPerThread = 1000;
  const PmSandbox::Sandbox sandbox;
  const PmSandbox::LogReader log(sandbox);
  const PmSandbox::Sandbox::Inside inside(sandbox);
  ProcMgr::OpenLog();

  // Two threads take the locks of libc all the time, but for a moment between their calls: the
  // locks aren't fair, and a fork would starve.
  std::atomic<bool> isOver = false;
  std::thread logger([&isOver] {
    for (; !isOver; std::this_thread::yield()) {
      ProcMgr::LogDebug("a line from a thread");
    }
  });
  std::thread searcher([&isOver] {
    for (; !isOver; std::this_thread::yield()) {
      (void)ProcMgr::FindUserId("root");
      (void)ProcMgr::FindGroupId("nobody knows this group");
    }
  });
  std::array<std::string, 2> failures;
  std::thread other([&] { failures[1] = ForkChildren(kForksPerThread); });
  failures[0] = ForkChildren(kForksPerThread);
  other.join();
  isOver = true;
  logger.join();
  searcher.join();
  ASSERT_EQ(failures[0], "");
  ASSERT_EQ(failures[1], "");
  EXPECT_TRUE(log.WaitForCount("a line from a child", 2 * kForksPerThread));
  EXPECT_GT(log.Count("a line from a thread"), 100U) << "the threads didn't take part";
  ProcMgr::CloseLog();
}

}  // namespace
