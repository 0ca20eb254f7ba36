#include "platform/timer/generic_timer.h"

namespace ProcMgr {

std::uint64_t GenericTimerCount() {
  return 0;
}

// Never 0: callers divide by it.
std::uint64_t GenericTimerFrequency() {
  return 1;
}

}  // namespace ProcMgr
