#include "base/fork_locks.h"

#include <pthread.h>

#include <cstdlib>
#include <memory>

namespace ProcMgr {
namespace {

struct ForkLocks {
  Mutex userLookup;
  Mutex log ACQUIRED_AFTER(userLookup);

  ForkLocks();
};

ForkLocks& Locks() {
  // Never destroyed: threads may still log while the process exits.
  static ForkLocks& locks = *std::make_unique<ForkLocks>().release();
  return locks;
}

void TakeAll() NO_THREAD_SAFETY_ANALYSIS {
  Locks().userLookup.Lock();
  Locks().log.Lock();
}

// Runs in the parent and in the child, each on the thread that forked and took the locks.
void GiveBackAll() NO_THREAD_SAFETY_ANALYSIS {
  Locks().log.Unlock();
  Locks().userLookup.Unlock();
}

ForkLocks::ForkLocks() {
  if (pthread_atfork(&TakeAll, &GiveBackAll, &GiveBackAll) != 0) {
    std::abort();  // Out of memory before the first line of the log.
  }
}

}  // namespace

Mutex& LogLock() {
  return Locks().log;
}
Mutex& UserLookupLock() {
  return Locks().userLookup;
}

}  // namespace ProcMgr
