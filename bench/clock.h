// The clocks of the measurements, in nanoseconds.
#ifndef BENCH_CLOCK_H
#define BENCH_CLOCK_H

#include <sys/types.h>

#include <ctime>
#include <stdexcept>

namespace PmBench {

inline long long ReadClockNs(clockid_t clock) {
  timespec now{};
  if (clock_gettime(clock, &now) != 0) {
    throw std::runtime_error("a clock can't be read");
  }
  return static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

inline long long MonotonicNs() {
  return ReadClockNs(CLOCK_MONOTONIC);
}

inline double MsBetween(long long beginNs, long long endNs) {
  return static_cast<double>(endNs - beginNs) / 1e6;
}

// The CPU time of all threads of a process, user and system; its children don't count.
inline long long CpuNs(pid_t pid) {
  clockid_t clock{};
  if (clock_getcpuclockid(pid, &clock) != 0) {
    throw std::runtime_error("no such process");
  }
  return ReadClockNs(clock);
}

}  // namespace PmBench

#endif  // BENCH_CLOCK_H
