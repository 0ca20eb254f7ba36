// How many system calls a child makes on its way to its program.
#ifndef BENCH_CALL_COUNT_H
#define BENCH_CALL_COUNT_H

#include <functional>

namespace PmBench {

struct CallCount {
  long children = 0;  // That came to their exec.
  long calls = 0;     // Of all of them up to it, the exec included.
};

// Runs `body` in a process of its own, with all that it starts under ptrace up to the exec. The
// body yields an exit status. Throws if it isn't 0, or if a process can't be traced.
CallCount CountCalls(const std::function<int()>& body);

}  // namespace PmBench

#endif  // BENCH_CALL_COUNT_H
