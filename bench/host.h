// What every measured daemon needs around it, and what is asked about its process.
#ifndef BENCH_HOST_H
#define BENCH_HOST_H

#include <sys/types.h>

#include "bench/clock.h"
#include "sandbox/sandbox.h"

namespace PmBench {

// Gives the sandbox the platform's groups, with all cores in them, and bench-service at its place.
void PrepareHost(const PmSandbox::Sandbox& sandbox);

[[nodiscard]] long ResidentKib(pid_t pid);

// What makes a fork dear.
struct ProcessSize {
  long residentKib = 0;
  std::size_t threads = 1;
};
[[nodiscard]] ProcessSize SizeOf(pid_t pid);

// The CPU time that a process takes in a second, in microseconds, looked at for `seconds`.
[[nodiscard]] double IdleCpuUsPerSecond(pid_t pid, int seconds);

// What the process takes while `work` is done, its idling apart, in microseconds.
template <typename Work>
double CpuUsOf(pid_t pid, double idleUsPerSecond, Work work) {
  const long long before = MonotonicNs();
  const long long cpuBefore = CpuNs(pid);
  work();
  return static_cast<double>(CpuNs(pid) - cpuBefore) / 1e3 -
         idleUsPerSecond * static_cast<double>(MonotonicNs() - before) / 1e9;
}

// The floor of the idling: what a thread takes that wakes up every 30 ms and does nothing.
[[nodiscard]] double BareLoopUsPerSecond(int seconds);

}  // namespace PmBench

#endif  // BENCH_HOST_H
