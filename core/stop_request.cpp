#include "core/stop_request.h"

#include <algorithm>

namespace ProcMgr {

void StopRequest::Ask() {
  const MutexLock lock(mutex_);
  times_ = std::min(times_.load() + 1, 2);
  asked_.NotifyAll();
}

void StopRequest::Await() {
  const MutexLock lock(mutex_);
  while (!IsAsked()) {
    asked_.Wait(mutex_);
  }
}

}  // namespace ProcMgr
