// A descriptor that names one process for good, whoever gets its number later. The C library's own
// header gives these two calls no C linkage in some versions, so they are made by hand.
#ifndef BASE_PID_FD_H
#define BASE_PID_FD_H

#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr {

// Not open, with errno, if there is no such process. Born close-on-exec.
inline UniqueFd OpenPidFd(pid_t pid) {
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

// False, with errno, if it can't be sent; ESRCH: the process has gone by itself.
inline bool SignalPidFd(int fd, int signal) {
  return syscall(SYS_pidfd_send_signal, fd, signal, nullptr, 0) == 0;
}

// Yields false if the process still runs after `patience`.
[[nodiscard]] inline bool AwaitExit(int fd, std::chrono::milliseconds patience) {
  const SteadyTime deadline = SteadyNow() + patience;
  pollfd exited{fd, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&exited, 1, MillisecondsUntil(deadline));
  } while (ready < 0 && errno == EINTR);
  return ready == 1;
}

}  // namespace ProcMgr

#endif  // BASE_PID_FD_H
