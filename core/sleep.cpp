#include "core/sleep.h"

#include <cerrno>
#include <ctime>

namespace ProcMgr {

void SleepNs(std::int64_t nanoseconds) {
  constexpr std::int64_t kNsPerSecond = 1'000'000'000;
  timespec left{};
  left.tv_sec = static_cast<time_t>(nanoseconds / kNsPerSecond);
  left.tv_nsec = static_cast<long>(nanoseconds % kNsPerSecond);
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace ProcMgr
