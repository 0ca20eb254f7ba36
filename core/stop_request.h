// Whether the manager has been asked for an orderly stop, and how urgently.
#ifndef CORE_STOP_REQUEST_H
#define CORE_STOP_REQUEST_H

#include <atomic>
#include <csignal>

#include "base/mutex.h"

namespace ProcMgr {

// The signal that asks for it; a second one cuts all remaining time-outs short. (SIGRTMIN is a
// call, so this is a function.) Blocked like the platform's signals, core/platform_events.h.
inline int StopSignal() {
  return SIGRTMIN + 3;
}

// The signal thread asks, the main thread stops, everybody else looks whether it is still worth
// beginning something.
class StopRequest {
 public:
  void Ask() EXCLUDES(mutex_);

  [[nodiscard]] bool IsAsked() const { return times_.load() > 0; }
  [[nodiscard]] bool IsUrgent() const { return times_.load() > 1; }

  // Returns when it has been asked for.
  void Await() EXCLUDES(mutex_);

 private:
  std::atomic<int> times_ = 0;  // Written under mutex_.
  Mutex mutex_;
  CondVar asked_;
};

}  // namespace ProcMgr

#endif  // CORE_STOP_REQUEST_H
