// What has the check pass begin at once instead of at the end of its pause.
#ifndef CORE_PASS_BELL_H
#define CORE_PASS_BELL_H

#include <atomic>

#include "base/mutex.h"
#include "base/steady_time.h"

namespace ProcMgr {

// Rings only where an immediate reaction is asked for; otherwise it costs its callers one look at a
// flag. Any thread rings, under whatever lock: a leaf. The check thread waits.
class PassBell {
 public:
  // Before the first thread that rings.
  void Enable() { isEnabled_ = true; }
  [[nodiscard]] bool IsEnabled() const { return isEnabled_; }

  // There is something to see: an exit has been filed, a start has been made, or what a record
  // waited for has come.
  void Ring() EXCLUDES(mutex_);

  // Returns at the first ring since the last wait, or at `deadline`.
  void WaitUntil(SteadyTime deadline) EXCLUDES(mutex_);

 private:
  std::atomic<bool> isEnabled_ = false;
  Mutex mutex_;
  CondVar rung_;
  bool isRung_ GUARDED_BY(mutex_) = false;
};

// The manager's, as the lists are (core/app_lists.h).
extern PassBell& passBell;

}  // namespace ProcMgr

#endif  // CORE_PASS_BELL_H
