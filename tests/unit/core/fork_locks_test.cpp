#include "core/fork_locks.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/log.h"
#include "core/user_lookup.h"
#include "tests/support/log_reader.h"
#include "tests/support/sandbox.h"

namespace {

// Threads that take the locks of libc without a pause, until the end of its scope.
class Hammer {
 public:
  Hammer() {
    threads_.emplace_back([this] {
      while (!stop_.load()) {
        ProcMgr::LogDebug("a line from a thread");
        std::this_thread::yield();  // The lock isn't fair: a fork would starve.
      }
    });
    threads_.emplace_back([this] {
      while (!stop_.load()) {
        (void)ProcMgr::FindUserId("root");
        (void)ProcMgr::FindGroupId("nobody knows this group");
        std::this_thread::yield();
      }
    });
  }
  ~Hammer() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Hammer(const Hammer&) = delete;
  Hammer& operator=(const Hammer&) = delete;

 private:
  std::atomic<bool> stop_ = false;
  std::vector<std::thread> threads_;
};

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
    if (WIFSIGNALED(status)) {
      return "child " + std::to_string(i) + " was ended by signal " +
             std::to_string(WTERMSIG(status)) + (WTERMSIG(status) == SIGALRM ? ": it hung" : "");
    }
    if (WEXITSTATUS(status) != 0) {
      return "child " + std::to_string(i) + " failed, " + std::to_string(WEXITSTATUS(status));
    }
  }
  return "";
}

TEST(ForkLocks, ChildrenForkedAmongBusyThreadsFindEveryLockFree) {
  constexpr int kForksPerThread = 1000;
  const PmTest::Sandbox sandbox;
  const PmTest::LogReader log(sandbox);
  const PmTest::Sandbox::Inside inside(sandbox);
  ProcMgr::OpenLog();

  std::array<std::string, 2> failures;
  {
    const Hammer hammer;
    std::thread other([&] { failures[1] = ForkChildren(kForksPerThread); });
    failures[0] = ForkChildren(kForksPerThread);
    other.join();
  }
  ASSERT_EQ(failures[0], "");
  ASSERT_EQ(failures[1], "");
  EXPECT_TRUE(log.WaitForCount("a line from a child", 2 * kForksPerThread));
  EXPECT_GT(log.Count("a line from a thread"), 100U) << "the threads didn't take part";
  ProcMgr::CloseLog();
}

}  // namespace
