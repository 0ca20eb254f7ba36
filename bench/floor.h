// Starts of bench-service, one after another, from a process that is as large as the manager.
//
// Bare, they are the floor under every figure of a start: a fork and an exec and nothing else. By
// the manager's own code, with the record, the checks, the log and the child's set-up, they show
// what a launch costs apart from everything that the daemon does besides.
#ifndef BENCH_FLOOR_H
#define BENCH_FLOOR_H

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace PmBench {

struct Starts {
  double parentCpuUs = 0;  // Of the forking process, its wait for the child's end included.
  double childCpuUs = 0;   // Of the child, from its fork to its main.
  std::vector<double> forkToMainUs;
};

// Each starts bench-service `count` times in the sandbox, from a process with `residentKib` of
// memory. Throws if a start fails.
Starts MeasureFloor(const PmTest::Sandbox& sandbox, long residentKib, int count);
Starts MeasureLaunch(const PmTest::Sandbox& sandbox, long residentKib, int count);

// The body of that process: pm-bench --floor|--launch KIB COUNT MARKS-FILE. Prints "PID
// NANOSECONDS", the instant before each start, and at the end "cpu NANOSECONDS". Yields the exit
// status.
int RunStartingProcess(int argc, char** argv);

}  // namespace PmBench

#endif  // BENCH_FLOOR_H
