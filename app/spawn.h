// Making the process of a launch.
//
// Most of what a fork costs is the copy of the manager's page tables and the faults behind it. So a
// child is made in the manager's own memory, on a stack of its own, and the calling thread waits
// until it has gone into its exec or ended (clone with CLONE_VM and CLONE_VFORK). Why none of the
// known hazards of that can happen:
//
// - Identity: libc spreads setuid and its kin over all threads by signals; the raw calls of the
//   child change the child alone, which is a process of its own.
// - errno and other thread-local data: are the calling thread's, which is suspended meanwhile, and
//   doesn't read them behind the call.
// - Stack: the child's is a mapping of its own with a page below it that ends it on an overflow.
//   The calling thread keeps it for its next child.
// - Signals: all are blocked around the call. The kernel leaves the manager's handlers out of the
//   child's table, which is its own, or the child resets them before it lets any signal in, so no
//   handler of the manager ever runs in it.
// - Cancellation: nothing cancels threads here, and raw calls are no cancellation points.
// - Descriptors: the child's table is its own copy.
// - Sanitizers: what the child's frames leave behind is kept out of their books (PM_NEVER_LEFT),
//   and raw calls pass them by.
// - ptrace: a debugger that follows forks sees one with shared memory; breakpoints that it set hold
//   in both. Nothing else differs.
// - A child that hangs before its exec would hold the calling thread: its steps wait for nothing
//   but the kernel, and for the file system of the program.
//
// A child that needs memory of its own is forked, and takes the same steps.
//
// A thread that starts many is let go by one child while the cores are busy with those before it.
// It would stand in line behind them, and a core that falls idle then has nothing to do, for the
// next start comes from this thread. So each thread runs ahead of the usual niceness from its first
// start on. What it makes begins with what the manager was started with.
#ifndef APP_SPAWN_H
#define APP_SPAWN_H

#include <sys/types.h>

#include "app/launch_plan.h"

namespace ProcMgr::App {

// Starts the child that the plan describes. Yields its pid, or the negative errno of a failure. Any
// thread.
[[nodiscard]] pid_t Spawn(const LaunchPlan& plan);

}  // namespace ProcMgr::App

#endif  // APP_SPAWN_H
