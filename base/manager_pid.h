// Which process is the manager, told to the services by a file that only root can write.
#ifndef BASE_MANAGER_PID_H
#define BASE_MANAGER_PID_H

#include <sys/types.h>

namespace ProcMgr {

// Says in the file that this process is the manager. Yields 0 or an errno; then the file tells of
// nobody, or, on a system that can't even remove it, of an earlier manager.
[[nodiscard]] int TellManagerPid();

// Whether the process `pid` of `user` may speak as the manager to this one: it is the one that the
// file tells, the parent (the manager's children needn't read anything), or this process itself.
// Where no manager has ever written the file any process may, and any of root's where the one that
// did has gone. 0, a process of another pid namespace, which the kernel can't name, may too: the
// caller knows its user. Reads the file each time, as a new manager is another process.
[[nodiscard]] bool MayBeManager(pid_t pid, uid_t user);

}  // namespace ProcMgr

#endif  // BASE_MANAGER_PID_H
