// The locks that are held over every fork.
//
// A child of a process with several threads finds each lock of libc as it stood at the fork, and
// one that another thread held then stays held for ever. glibc makes malloc and stdio safe itself,
// but not syslog and not the user database. The manager takes those two only under the locks of
// this unit, and pthread_atfork handlers take both before the fork and give them back behind it on
// either side, so in a child they are free. The other locks that a child's steps need are never
// contended: setenv runs in main before the first thread and in children; dlopen runs in children
// only.
//
// Lock order: UserLookupLock() before LogLock(); both are leaves to everything else.
#ifndef BASE_FORK_LOCKS_H
#define BASE_FORK_LOCKS_H

#include "base/mutex.h"

namespace ProcMgr {

// Guards every call of syslog, openlog and closelog.
Mutex& LogLock();

// Guards every call of getpw*, getgr* and getgrouplist.
Mutex& UserLookupLock();

}  // namespace ProcMgr

#endif  // BASE_FORK_LOCKS_H
