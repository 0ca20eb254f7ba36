// Starts of bench-service, one after another, from a process that is as large as the manager
// and has as many threads.
//
// Bare, they are the floor under every figure of a start: a fork and an exec and nothing else. By
// the manager's own code, with the record, the checks, the log and the child's set-up, they show
// what a launch costs apart from everything that the daemon does besides.
#ifndef BENCH_FLOOR_H
#define BENCH_FLOOR_H

#include <string>
#include <vector>

#include "bench/host.h"
#include "sandbox/sandbox.h"

namespace PmBench {

struct Starts {
  double parentCpuUs = 0;  // Of the forking process, its wait for the child's end included.
  double childCpuUs = 0;   // Of the child, from its fork to its main.
  std::vector<double> forkToMainUs;
};

// Each starts bench-service `count` times in the sandbox, from a process of that size. Throws if a
// start fails.
Starts MeasureFloor(const PmSandbox::Sandbox& sandbox, const ProcessSize& size, int count);
Starts MeasureLaunch(const PmSandbox::Sandbox& sandbox, const ProcessSize& size, int count);

// The same once more, under ptrace: how many system calls a child makes up to its exec, that
// included. `kind` is what starts it: kBare, or the manager's own code with a record of a kind.
inline constexpr const char* kBare = "bare";
inline constexpr const char* kBase = "base";
inline constexpr const char* kGeneral = "general";
double MeasureCalls(const PmSandbox::Sandbox& sandbox, const std::string& kind);

// The same of many at once: all are forked in a row and live until the last has come to its main.
// Then the last `killed` of them are killed in a row, and their exits taken.
struct StartsAtOnce {
  double startUs = 0;    // From before the first fork to the last main.
  double endUs = 0;      // From before the first kill to the last exit taken.
  double exitCpuUs = 0;  // Of the parent, for taking one exit.
};
StartsAtOnce MeasureFloorAtOnce(const PmSandbox::Sandbox& sandbox, const ProcessSize& size,
                                int count, int killed);

// Whether these arguments call for the body of that process, which the next function is:
// pm-bench --floor|--launch|--floor-at-once|--calls KIB THREADS COUNT FILE [KILLED|KIND], with FILE
// the marks of the services, or the service file of --launch and of --calls, unless its KIND is
// kBare. It prints "PID NANOSECONDS", the instant before each start, and at the end "cpu
// NANOSECONDS"; of --floor-at-once, "began NANOSECONDS", an instant, and the durations "end
// NANOSECONDS" and "cpu NANOSECONDS"; of --calls, "children NUMBER" and "calls NUMBER". Yields the
// exit status.
[[nodiscard]] bool IsStartingProcess(int argc, char** argv);
int RunStartingProcess(int argc, char** argv);

}  // namespace PmBench

#endif  // BENCH_FLOOR_H
