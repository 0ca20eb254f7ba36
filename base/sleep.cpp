#include "base/sleep.h"

#include <cerrno>
#include <chrono>
#include <ctime>

#include "base/may_wait.h"
#include "base/steady_time.h"

namespace ProcMgr {

void SleepNs(std::int64_t nanoseconds) {
  MayWait("SleepNs");
  constexpr std::int64_t kNsPerSecond = 1'000'000'000;
  const SteadyTime end = SteadyNow() + std::chrono::nanoseconds(nanoseconds);
  // What nanosleep tells as remaining holds the timer's slack once more at each interruption, so
  // that a storm of signals could keep the sleep from ever ending. The clock tells the truth.
  for (;;) {
    const std::int64_t left = std::chrono::nanoseconds(end - SteadyNow()).count();
    if (left <= 0) {
      return;
    }
    timespec time{};
    time.tv_sec = static_cast<time_t>(left / kNsPerSecond);
    time.tv_nsec = static_cast<long>(left % kNsPerSecond);
    if (nanosleep(&time, nullptr) == 0 || errno != EINTR) {
      return;
    }
  }
}

}  // namespace ProcMgr
