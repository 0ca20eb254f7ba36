// The one way to sleep.
#ifndef BASE_SLEEP_H
#define BASE_SLEEP_H

#include <cstdint>

namespace ProcMgr {

// Sleeps for `nanoseconds`; a sleep that a signal interrupts resumes for the remaining time.
void SleepNs(std::int64_t nanoseconds);

}  // namespace ProcMgr

#endif  // BASE_SLEEP_H
