// Keeps the check thread from waiting for the channel of a service that has ended.
//
// After a restart the check thread opens the service's channel with baseAppMutex_ held, and the
// reaper needs that lock to file an exit. A service that ends before it serves would hold up all
// supervision until the open times out. So the reaper notes an exit here first, without that lock.
#ifndef CORE_OPENING_GUARD_H
#define CORE_OPENING_GUARD_H

#include <sys/types.h>

#include <string>

#include "base/mutex.h"

namespace ProcMgr {

class OpeningGuard {
 public:
  // The check thread is about to open the channel of `name`, whose process is `pid`.
  void Begin(pid_t pid, const std::string& name) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    pid_ = pid;
    name_ = name;
  }

  // It has the channel, or has given it up.
  void End() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    pid_ = 0;
    name_.clear();
  }

  // Reaper: `pid` has ended. Yields the name of the service whose opening is to be given up, or
  // nothing. An exit that is noted before the opening could be given up is seen by HasEnded.
  [[nodiscard]] std::string NoteExit(pid_t pid) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    lastExit_ = pid;
    return pid == pid_ ? name_ : std::string();
  }

  // Whether the exit of `pid` is the one that the reaper is about to file.
  [[nodiscard]] bool HasEnded(pid_t pid) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return lastExit_ == pid;
  }

 private:
  Mutex mutex_;
  pid_t pid_ GUARDED_BY(mutex_) = 0;
  std::string name_ GUARDED_BY(mutex_);
  pid_t lastExit_ GUARDED_BY(mutex_) = 0;
};

}  // namespace ProcMgr

#endif  // CORE_OPENING_GUARD_H
