#include "tools/pmctl/manager_stop.h"

#include <cerrno>
#include <csignal>
#include <system_error>

#include "base/pid_fd.h"

namespace PmCtl {
namespace {

void Check(bool ok, const char* call) {
  if (!ok) {
    throw std::system_error(errno, std::generic_category(), call);
  }
}

}  // namespace

bool StopManager(const std::function<pid_t()>& findManager, bool isUrgent,
                 std::chrono::milliseconds limit) {
  const pid_t pid = findManager();
  const ProcMgr::UniqueFd process = ProcMgr::OpenPidFd(pid);
  Check(process.IsOpen(), "pidfd_open");
  if (findManager() != pid) {
    throw std::system_error(ESRCH, std::generic_category(), "the manager has just ended");
  }
  for (int i = 0; i < (isUrgent ? 2 : 1); ++i) {
    Check(ProcMgr::SignalPidFd(process.Get(), SIGRTMIN + 3), "pidfd_send_signal");
  }
  return ProcMgr::AwaitExit(process.Get(), limit);
}

}  // namespace PmCtl
