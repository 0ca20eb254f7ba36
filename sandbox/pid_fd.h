// A descriptor that names one process for good, whoever gets its number later. The C library's own
// header gives these two calls no C linkage in some versions, so they are made by hand.
#ifndef SANDBOX_PID_FD_H
#define SANDBOX_PID_FD_H

#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>

#include "base/unique_fd.h"

namespace PmSandbox {

// Not open, with errno, if there is no such process. Born close-on-exec.
inline ProcMgr::UniqueFd OpenPidFd(pid_t pid) {
  return ProcMgr::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

inline void SignalPidFd(int fd, int signal) {
  // The process may have gone by itself, and then nothing is left to do.
  (void)syscall(SYS_pidfd_send_signal, fd, signal, nullptr, 0);
}

// Yields false if the process still runs after `patience`.
[[nodiscard]] inline bool AwaitExit(int fd, std::chrono::milliseconds patience) {
  pollfd exited{fd, POLLIN, 0};
  return poll(&exited, 1, static_cast<int>(patience.count())) == 1;
}

}  // namespace PmSandbox

#endif  // SANDBOX_PID_FD_H
