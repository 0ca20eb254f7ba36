#include "platform/timer/generic_timer.h"

#include <ctime>

namespace ProcMgr {

#if defined(__aarch64__)

std::uint64_t GenericTimerCount() {
  std::uint64_t count = 0;
  asm volatile("isb; mrs %0, cntvct_el0" : "=r"(count));
  return count;
}

std::uint64_t GenericTimerFrequency() {
  std::uint64_t frequency = 0;
  asm volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
  return frequency;
}

#else

constexpr std::uint64_t kNsPerSecond = 1'000'000'000;

std::uint64_t GenericTimerCount() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kNsPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t GenericTimerFrequency() {
  return kNsPerSecond;
}

#endif

}  // namespace ProcMgr
