// The child's side of a launch: everything between fork and execv.
//
// The manager has several threads, so a child starts as a copy of a process whose other threads
// have vanished in mid-step. Three rules keep that safe, and child_*.cpp holds nothing that breaks
// them:
//
// 1. No lock of the manager is taken, and no step logs by itself. What a step can't do it appends
//    to an error text, which goes to the manager through the child message pipe.
// 2. Of libc, only what is async-signal-safe is called, or what is known to be free at the fork:
//    malloc and stdio (glibc frees them itself in the child), the user database and syslog (the
//    manager holds their locks over every fork, base/fork_locks.h, and has had libc load the
//    database's modules at the boot), setenv (the manager calls it in main, before its first
//    thread, and never again), dlopen (the manager's own threads never load a library).
// 3. The child ends in execv or _exit; nothing unwinds, no destructor of the manager runs.
#ifndef APP_CHILD_MAIN_H
#define APP_CHILD_MAIN_H

#include <vector>

#include "app/app_info.h"

namespace ProcMgr::App {

// Each works on the child's own copy of `app`; `argv` was built before the fork.
[[noreturn]] void RunBaseChild(BaseAppInfo& app, const std::vector<char*>& argv);
[[noreturn]] void RunGeneralChild(GeneralAppInfo& app, const std::vector<char*>& argv);

}  // namespace ProcMgr::App

#endif  // APP_CHILD_MAIN_H
