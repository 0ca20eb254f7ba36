// A process of the test's own that waits to be signalled.
#ifndef TESTS_UNIT_APP_CHILDREN_H
#define TESTS_UNIT_APP_CHILDREN_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "sandbox/system_error.h"

namespace ProcMgr::App {

// What it is sent is left for the test to reap; what is left at the end is killed.
class WaitingChild {
 public:
  WaitingChild() : pid_(fork()) {
    PmSandbox::CheckStep(pid_ >= 0, "fork");
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

  // Sends the signal, waits for the change of its state and leaves the change to be seen again.
  void Change(int signal, int options) const {
    siginfo_t info{};
    ASSERT_EQ(kill(pid_, signal), 0);
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

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_CHILDREN_H
