// The check behind "nobody waits for anybody": no thread waits while it holds what everybody needs.
//
// A call that may wait for a peer, a program or a clock names itself with MayWait before it does.
// Debug and sanitizer builds end the process, with a line that names the call and the lock, if the
// caller holds one of the locks that were given to NeverWaitUnder. Other builds check nothing.
#ifndef BASE_MAY_WAIT_H
#define BASE_MAY_WAIT_H

#include "base/mutex.h"

namespace ProcMgr {

// `lock` and `name` stay for the life of the process. At most eight locks; before there is more
// than one thread.
void NeverWaitUnder(const Mutex& lock, const char* name);

// Any thread.
void MayWait(const char* call);

// The name of a lock that the caller holds and that it mustn't wait under; null if there is none.
[[nodiscard]] const char* HeldWhileWaiting();

}  // namespace ProcMgr

#endif  // BASE_MAY_WAIT_H
