// Processes of the test's own: none outlives the test, and none is waited for without a limit.
#ifndef TESTS_SUPPORT_CHILDREN_H
#define TESTS_SUPPORT_CHILDREN_H

#include <sys/prctl.h>

#include "base/pid_fd.h"
#include "base/text.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"
#include "sandbox/wait.h"
#include "tests/support/test.h"

namespace PmTest {

// Waits for the end of a child and yields its wait status. One that doesn't end is a failure of the
// test, and is killed.
inline int Reap(pid_t child) {
  const ProcMgr::UniqueFd process = ProcMgr::OpenPidFd(child);
  if (process.IsOpen() && !ProcMgr::AwaitExit(process.Get(), PmSandbox::kPatience)) {
    ADD_FAILURE() << "child " << child << " doesn't end";
    ProcMgr::SignalPidFd(process.Get(), SIGKILL);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// One that waits to be signalled. What it is sent is left for the test to reap.
class WaitingChild {
 public:
  WaitingChild() : pid_(fork()) {
    PmSandbox::CheckStep(pid_ >= 0, "fork");
    if (pid_ == 0) {
      (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) {
        pause();
      }
    }
  }
  ~WaitingChild() {
    if (pid_ > 0) {
      (void)kill(pid_, SIGKILL);
      (void)PmTest::Reap(pid_);
    }
  }
  WaitingChild(const WaitingChild&) = delete;
  WaitingChild& operator=(const WaitingChild&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }

  // Sends the signal, waits for the change of its state and leaves the change to be seen again.
  void Change(int signal, int options) const {
    siginfo_t info{};
    ASSERT_EQ(kill(pid_, signal), 0);
    ASSERT_TRUE(PmSandbox::Eventually([&] {
      return waitid(P_PID, static_cast<id_t>(pid_), &info, options | WNOWAIT | WNOHANG) == 0 &&
             info.si_pid == pid_;
    }));
  }

  // Waits for its end and takes the status.
  [[nodiscard]] int Reap() { return PmTest::Reap(std::exchange(pid_, -1)); }

 private:
  pid_t pid_;
};

// Whether this process may raise limits, and its children with it: in some containers root may not.
inline bool MayRaiseLimits() {
  constexpr unsigned kSysResource = 24;
  const std::string rights = PmSandbox::StatusField(getpid(), "CapEff");
  return (ProcMgr::ParseNumber<std::uint64_t>(rights, 16).value_or(0) >> kSysResource & 1) != 0;
}

}  // namespace PmTest

#endif  // TESTS_SUPPORT_CHILDREN_H
