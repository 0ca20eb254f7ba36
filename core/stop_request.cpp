#include "core/stop_request.h"

#include <algorithm>

#include "base/may_wait.h"

namespace ProcMgr {

void StopRequest::Ask() {
  const MutexLock lock(mutex_);
  times_ = std::min(times_.load() + 1, 2);
  asked_.NotifyAll();
}

void StopRequest::Await() {
  MayWait("StopRequest");
  const MutexLock lock(mutex_);
  while (!IsAsked()) {
    asked_.Wait(mutex_);
  }
}

}  // namespace ProcMgr
