// Processes of the test's own: how one ended, and one that waits to be signalled.
#ifndef TESTS_UNIT_APP_CHILDREN_H
#define TESTS_UNIT_APP_CHILDREN_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/system_error.h"

namespace ProcMgr::App {

// A process that waits for signals. What it is sent is left for the test to reap; what is left at
// the end is killed.
class WaitingChild {
 public:
  WaitingChild() : pid_(fork()) {
    PmTest::CheckStep(pid_ >= 0, "fork");
    if (pid_ == 0) {
      for (;;) {
        pause();
      }
    }
  }
  ~WaitingChild() {
    if (pid_ > 0) {
      (void)kill(pid_, SIGKILL);
      (void)waitpid(pid_, nullptr, 0);
    }
  }
  WaitingChild(const WaitingChild&) = delete;
  WaitingChild& operator=(const WaitingChild&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }

  // Waits for a change of its state and leaves the change to be seen again.
  void Await(int options) const {
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid_), &info, options | WNOWAIT), 0);
  }

  // Waits for its end and takes the status.
  [[nodiscard]] int Reap() {
    int status = -1;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

// The wait status of a process that does `end`, and leaves no core file.
template <typename End>
int StatusAfter(End end) {
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit none{0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);
    end();
    _exit(99);
  }
  int status = -1;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return status;
}

inline int Exited(int code) {
  return StatusAfter([code] { _exit(code); });
}

inline int KilledBy(int signal) {
  return StatusAfter([signal] {
    (void)std::signal(signal, SIG_DFL);
    (void)raise(signal);
  });
}

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_CHILDREN_H
