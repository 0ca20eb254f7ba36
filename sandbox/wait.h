// Waiting for a condition that tells nobody when it comes true: a state of /proc, a file.
#ifndef SANDBOX_WAIT_H
#define SANDBOX_WAIT_H

#include <chrono>

#include "base/sleep.h"
#include "base/steady_time.h"

namespace PmSandbox {

// How long anything may take before a test calls it lost. Generous: a loaded machine under a
// sanitizer must not fail, and a test that passes never waits this long.
inline constexpr std::chrono::milliseconds kPatience{60'000};

// Looks at `condition` every 2 ms until it holds. Yields false if `patience` has passed first.
template <typename Condition>
[[nodiscard]] bool Eventually(Condition condition, std::chrono::milliseconds patience = kPatience) {
  constexpr std::int64_t kStepNs = 2'000'000;
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + patience;
  while (!condition()) {
    if (ProcMgr::SteadyNow() >= deadline) {
      return condition();
    }
    ProcMgr::SleepNs(kStepNs);
  }
  return true;
}

}  // namespace PmSandbox

#endif  // SANDBOX_WAIT_H
