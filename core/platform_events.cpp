#include "core/platform_events.h"

#include <ctime>

#include "base/may_wait.h"
#include "core/orderly_stop.h"
#include "core/process_manager.h"
#include "core/stop_request.h"

namespace ProcMgr {

sigset_t PlatformSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, BindingSignal());
  sigaddset(&signals, WakeUpSignal());
  sigaddset(&signals, StopSignal());
  return signals;
}

void PlatformEvents::Put(PlatformEvent event) {
  const MutexLock lock(mutex_);
  events_.push_back(event);
  changed_.NotifyAll();
}

PlatformEvent PlatformEvents::Take() {
  MayWait("PlatformEvents");
  const MutexLock lock(mutex_);
  while (events_.empty() && !isClosed_) {
    changed_.Wait(mutex_);
  }
  if (isClosed_) {
    return PlatformEvent::kNone;
  }
  const PlatformEvent event = events_.front();
  events_.pop_front();
  return event;
}

void PlatformEvents::Close() {
  const MutexLock lock(mutex_);
  isClosed_ = true;
  changed_.NotifyAll();
}

bool TakePlatformSignals(PlatformEvents& events) {
  const sigset_t signals = PlatformSignals();
  bool isWokenUp = false;
  bool isRequested = false;
  bool isStopAsked = false;
  int signal = sigwaitinfo(&signals, nullptr);
  while (signal > 0) {
    isWokenUp = isWokenUp || signal == WakeUpSignal();
    isRequested = isRequested || signal == BindingSignal();
    isStopAsked = isStopAsked || signal == StopSignal();
    const timespec atOnce{};
    signal = sigtimedwait(&signals, nullptr, &atOnce);
  }
  // What is pending together has come within a moment, or while this process stood still, and the
  // kernel can't tell in which order. Nobody asks for a binding just to have it undone, but a
  // binding is asked for at once after a wake-up.
  if (isWokenUp) {
    events.Put(PlatformEvent::kWakeUp);
  }
  if (isRequested) {
    events.Put(PlatformEvent::kBinding);
  }
  return isStopAsked;
}

void ProcessManager::PlatformSignalThread() {
  while (running_.load()) {
    if (TakePlatformSignals(platformEvents_)) {
      AskForStop(stop_, handshake_);
    }
  }
}

void ProcessManager::PlatformEventThread() {
  while (running_.load()) {
    const PlatformEvent event = platformEvents_.Take();
    if (event == PlatformEvent::kBinding) {
      delayedBinding_.Request(procMgrCfg_.delayCore.value_or(DelayCoreSettings{}));
    } else if (event == PlatformEvent::kWakeUp) {
      (void)delayedBinding_.WakeUpRecover();  // Its last line tells how it went.
    }
  }
}

}  // namespace ProcMgr
