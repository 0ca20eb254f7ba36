// Asking the manager for an orderly stop.
#ifndef TOOLS_PMCTL_MANAGER_STOP_H
#define TOOLS_PMCTL_MANAGER_STOP_H

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace PmCtl {

// Asks the process that `findManager` names, cutting the applications' time-outs short if
// `isUrgent` says so, and waits for its end. False if `limit` passes first. `findManager` is called
// twice: what it names must still be the manager when its process can't be taken for another any
// more. Throws std::system_error if the manager can't be asked.
[[nodiscard]] bool StopManager(const std::function<pid_t()>& findManager, bool isUrgent,
                               std::chrono::milliseconds limit);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_MANAGER_STOP_H
