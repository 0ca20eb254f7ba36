// The clock of everything that is measured.
#ifndef BASE_STEADY_TIME_H
#define BASE_STEADY_TIME_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

namespace ProcMgr {

using SteadyTime = std::chrono::steady_clock::time_point;

inline SteadyTime SteadyNow() {
  return std::chrono::steady_clock::now();
}

// The time left until `deadline` as poll takes it, in whole milliseconds rounded up; 0 if it has
// passed.
inline int MillisecondsUntil(SteadyTime deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyNow());
  return static_cast<int>(
      std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace ProcMgr

#endif  // BASE_STEADY_TIME_H
