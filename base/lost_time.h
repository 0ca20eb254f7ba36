// Time that nobody had: everything was stopped for a while, or the machine had no time for us.
#ifndef BASE_LOST_TIME_H
#define BASE_LOST_TIME_H

#include <chrono>
#include <utility>

#include "base/steady_time.h"

namespace ProcMgr {

// For a thread that looks at time-outs of others again and again. The clock goes on while all
// processes are stopped (a frozen container, a paused machine), and time-outs that ran out
// meanwhile say nothing about those who couldn't run either. One thread.
class LostTime {
 public:
  // How long the last look, or the beginning, is ago if that is far more than a busy machine
  // explains; otherwise zero. By so much a time-out is to be longer.
  [[nodiscard]] SteadyTime::duration Look() {
    constexpr std::chrono::milliseconds kBusy{500};
    const SteadyTime now = SteadyNow();
    const SteadyTime::duration away = now - std::exchange(last_, now);
    return away > kBusy ? away : SteadyTime::duration::zero();
  }

 private:
  SteadyTime last_ = SteadyNow();
};

}  // namespace ProcMgr

#endif  // BASE_LOST_TIME_H
