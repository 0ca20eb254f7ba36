#include "tools/pmctl/manager_stop.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace PmCtl {
namespace {

void Check(long result, const char* call) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), call);
  }
}

// Ends of the manager are readable.
bool AwaitEnd(int process, std::chrono::milliseconds limit) {
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + limit;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - ProcMgr::SteadyNow());
    pollfd entry{process, POLLIN, 0};
    const int ready = poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready >= 0 || errno != EINTR) {
      return ready > 0;
    }
  }
}

}  // namespace

bool StopManager(const std::function<pid_t()>& findManager, bool isUrgent,
                 std::chrono::milliseconds limit) {
  const pid_t pid = findManager();
  const ProcMgr::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  Check(process.Get(), "pidfd_open");
  if (findManager() != pid) {
    throw std::system_error(ESRCH, std::generic_category(), "the manager has just ended");
  }
  for (int i = 0; i < (isUrgent ? 2 : 1); ++i) {
    Check(syscall(SYS_pidfd_send_signal, process.Get(), SIGRTMIN + 3, nullptr, 0),
          "pidfd_send_signal");
  }
  return AwaitEnd(process.Get(), limit);
}

}  // namespace PmCtl
