// The interface of the processor's generic timer.
#ifndef PLATFORM_TIMER_GENERIC_TIMER_H
#define PLATFORM_TIMER_GENERIC_TIMER_H

#include <cstdint>

namespace ProcMgr {

// The virtual count, and its counts per second. Any thread; async-signal-safe.
[[nodiscard]] std::uint64_t GenericTimerCount();
[[nodiscard]] std::uint64_t GenericTimerFrequency();

}  // namespace ProcMgr

#endif  // PLATFORM_TIMER_GENERIC_TIMER_H
