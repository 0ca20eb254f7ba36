// The platform's sleep and wake events, as signals to the manager.
#ifndef CORE_PLATFORM_EVENTS_H
#define CORE_PLATFORM_EVENTS_H

#include <csignal>
#include <deque>

#include "base/mutex.h"

namespace ProcMgr {

// The signals that ask for the delayed binding and tell of a wake-up. They are blocked in every
// thread of the manager and taken by one that waits for them. (SIGRTMIN is a call, so these are
// functions.)
inline int BindingSignal() {
  return SIGRTMIN + 1;
}
inline int WakeUpSignal() {
  return SIGRTMIN + 2;
}

// Both, and the one that asks for an orderly stop (core/stop_request.h), which the same thread
// takes. main blocks them before it starts the first thread (core/starter.h).
[[nodiscard]] sigset_t PlatformSignals();

enum class PlatformEvent { kBinding, kWakeUp, kNone };

// The events that have come and aren't dealt with yet, in the order of their coming. The kernel
// keeps no order between two pending signals, so somebody has to take them at once, however long
// dealing with one lasts.
class PlatformEvents {
 public:
  void Put(PlatformEvent event) EXCLUDES(mutex_);
  // Waits for an event; kNone if Close was called.
  [[nodiscard]] PlatformEvent Take() EXCLUDES(mutex_);
  void Close() EXCLUDES(mutex_);

 private:
  Mutex mutex_;
  CondVar changed_;
  std::deque<PlatformEvent> events_ GUARDED_BY(mutex_);
  bool isClosed_ GUARDED_BY(mutex_) = false;
};

// Waits for one of the signals, or until another one interrupts it, and files in `events` what has
// come. Yields whether an orderly stop is asked for.
[[nodiscard]] bool TakePlatformSignals(PlatformEvents& events);

}  // namespace ProcMgr

#endif  // CORE_PLATFORM_EVENTS_H
