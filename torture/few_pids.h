// A run among so few pids that each comes back within seconds.
#ifndef TORTURE_FEW_PIDS_H
#define TORTURE_FEW_PIDS_H

#include <functional>

namespace PmTorture {

// Calls `body` in a forked process in a pid namespace of its own, in which pids end below a
// thousand; where the kernel has one limit for all namespaces (before 6.14) the machine's stays.
// Throws Broken with what `body` threw. Whatever `body` leaves running is killed. A container may
// not allow a namespace; then `body` is called in place, and a line says so. The caller has no
// other thread.
void AmongFewPids(const std::function<void()>& body);

}  // namespace PmTorture

#endif  // TORTURE_FEW_PIDS_H
