// The clock of everything that is measured.
#ifndef CORE_STEADY_TIME_H
#define CORE_STEADY_TIME_H

#include <chrono>

namespace ProcMgr {

using SteadyTime = std::chrono::steady_clock::time_point;

inline SteadyTime SteadyNow() {
  return std::chrono::steady_clock::now();
}

}  // namespace ProcMgr

#endif  // CORE_STEADY_TIME_H
