// The platform's sleep and wake events, as signals to the manager.
#ifndef CORE_DELAYED_BINDING_H
#define CORE_DELAYED_BINDING_H

#include <csignal>
#include <cstdint>

namespace ProcMgr {

// What a failed delayed binding yields.
inline constexpr std::uint32_t kDelayedBindingFailed = 0xF1030C;

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

}  // namespace ProcMgr

#endif  // CORE_DELAYED_BINDING_H
