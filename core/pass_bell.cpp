#include "core/pass_bell.h"

#include "base/immortal.h"
#include "base/may_wait.h"

namespace ProcMgr {

// Openings and digests can end while the process does.
PassBell& passBell = Immortal<PassBell>();

void PassBell::Ring() {
  if (!isEnabled_) {
    return;
  }
  {
    const MutexLock lock(mutex_);
    isRung_ = true;
  }
  rung_.NotifyOne();
}

void PassBell::WaitUntil(SteadyTime deadline) {
  MayWait("PassBell");
  const MutexLock lock(mutex_);
  while (!isRung_ && rung_.WaitUntil(mutex_, deadline)) {
  }
  isRung_ = false;
}

}  // namespace ProcMgr
