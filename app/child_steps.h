// The child's side of a launch: everything between its start and its exec.
//
// The child may run in the manager's own memory while the thread that made it waits (app/spawn.h).
// What makes that safe, call by call:
//
// 1. It makes system calls, all of them raw (base/raw_calls.h), on what the plan holds, and builds
//    its texts in a buffer of its own stack. Nothing here allocates, takes a lock, logs, or writes
//    to memory of the manager; but for the count of texts that the message pipe had no room for,
//    which is an atomic made to be shared.
// 2. The two steps that are libraries' (libnuma, access management) run only where the plan says
//    that they may: in a child with memory of its own, or with the library's word that it keeps to
//    the rule above.
// 3. It ends in the exec or in exit_group: nothing unwinds, no destructor runs.
#ifndef APP_CHILD_STEPS_H
#define APP_CHILD_STEPS_H

#include "app/launch_plan.h"

namespace ProcMgr::App {

// Its frames are never left, which the sanitizers' books of the shared thread would miss.
#define PM_NEVER_LEFT __attribute__((no_sanitize("address"), no_sanitize("thread")))

// What the child has of the manager's signal handlers when it begins.
enum class Handlers { kInherited, kGone };

// The child that the plan describes. Signals are blocked when it begins.
[[noreturn]] PM_NEVER_LEFT void RunChild(const LaunchPlan& plan, Handlers handlers);

}  // namespace ProcMgr::App

#endif  // APP_CHILD_STEPS_H
