#include "core/starter.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "base/dir_stream.h"
#include "base/text.h"
#include "core/platform_events.h"
#include "host/host_limits.h"

namespace ProcMgr {
namespace {

constexpr int kFirstInherited = 3;

void ResetSignals() {
  const sigset_t blocked = PlatformSignals();
  (void)sigprocmask(SIG_SETMASK, &blocked, nullptr);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    struct sigaction action {};
    // No handler survives an exec, so whatever isn't ignored is left to whom it belongs by now: a
    // sanitizer has set its own.
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
      (void)std::signal(signal, SIG_DFL);
    }
  }
}

void StopTimers() {
  const itimerval none{};
  (void)setitimer(ITIMER_REAL, &none, nullptr);
  (void)setitimer(ITIMER_VIRTUAL, &none, nullptr);
  (void)setitimer(ITIMER_PROF, &none, nullptr);
}

void EndAtExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  if (flags >= 0) {
    (void)fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
  }
}

void EndEachAtExec() {
  if (const DirStream folder(opendir("/proc/self/fd")); folder != nullptr) {
    while (const dirent* const entry = readdir(folder.get())) {
      const int fd = ParseNumber<int>(entry->d_name).value_or(-1);
      if (fd >= kFirstInherited) {
        EndAtExec(fd);
      }
    }
    return;
  }
  // Without /proc, each number that a limit of our own could have allowed; a starter that had
  // raised its limit further may have left more.
  constexpr rlim_t kMost = 65536;
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  for (int fd = kFirstInherited; fd < static_cast<int>(std::min(limit.rlim_max, kMost)); ++fd) {
    EndAtExec(fd);
  }
}

// A child of ours is to have 0, 1, 2 and the message pipe. A hole among the first three is filled,
// or the next open would be taken for somebody's standard output.
void TidyDescriptors() {
  // Kernels before 5.11 don't know the call or its flag.
  if (close_range(kFirstInherited, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
    EndEachAtExec();
  }
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd < kFirstInherited) {
    fd = open("/dev/null", O_RDWR);
  }
  if (fd >= kFirstInherited) {
    (void)close(fd);
  }
}

}  // namespace

void PutStartRight() {
  ResetSignals();
  StopTimers();
  (void)umask(022);
  TidyDescriptors();
  RaiseDescriptorLimit();
}

void LeaveWorkingDirectory() {
  [[maybe_unused]] const int ignored = chdir("/");  // Root may always stand there.
}

}  // namespace ProcMgr
