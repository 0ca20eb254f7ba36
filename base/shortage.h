// Waiting out a shortage, for what comes once and, if it is missed, is missed for good.
#ifndef BASE_SHORTAGE_H
#define BASE_SHORTAGE_H

#include <chrono>
#include <cstdint>
#include <new>

#include "base/sleep.h"
#include "base/steady_time.h"

namespace ProcMgr {

inline constexpr std::chrono::seconds kShortagePatience{1};
inline constexpr std::int64_t kShortagePauseNs = 10'000'000;

// Runs `attempt` until it finds the memory that it needs, for a second at most: then the last
// std::bad_alloc gets out. What an attempt has done before it throws, the next does again.
template <typename Attempt>
void ThroughMemoryShortage(const Attempt& attempt) {
  const SteadyTime end = SteadyNow() + kShortagePatience;
  for (;;) {
    try {
      attempt();
      return;
    } catch (const std::bad_alloc&) {
      if (SteadyNow() >= end) {
        throw;
      }
    }
    SleepNs(kShortagePauseNs);
  }
}

}  // namespace ProcMgr

#endif  // BASE_SHORTAGE_H
