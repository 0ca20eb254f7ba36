// Waiting for a condition that tells nobody when it comes true: a state of /proc, a file.
#ifndef SANDBOX_WAIT_H
#define SANDBOX_WAIT_H

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "base/sleep.h"
#include "base/steady_time.h"
#include "base/text.h"

namespace PmSandbox {

// What whoever knows that the machine is slow or busy says with PM_TEST_PATIENCE=NUMBER.
inline int GivenPatience() {
  const char* const given = std::getenv("PM_TEST_PATIENCE");
  return std::max(1, ProcMgr::ParseNumber<int>(given == nullptr ? "" : given).value_or(1));
}

// On such a machine a heart may miss its beats, for nobody's fault.
inline bool MayHeartsBeLate() {
  return GivenPatience() > 1;
}

// How many times the patience of an idle machine this one needs. A sanitizer slows everything down
// too.
inline int PatienceFactor() {
#ifdef PM_SANITIZED
  constexpr int kBuild = 3;
#else
  constexpr int kBuild = 1;
#endif
  return kBuild * GivenPatience();
}

// How long anything may take before a test calls it lost. Generous: a test that passes never waits
// this long.
inline const std::chrono::milliseconds kPatience = PatienceFactor() * std::chrono::seconds(60);

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
