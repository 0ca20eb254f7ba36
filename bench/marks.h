// What the bench-services of a run have told about their starts.
#ifndef BENCH_MARKS_H
#define BENCH_MARKS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace PmBench {

// Where bench-service stands in the sandbox.
inline constexpr const char* kServicePath = "/opt/bench/bench-service";

struct Mark {
  pid_t pid = 0;
  long long mainNs = 0;  // The monotonic clock at main.
  long long cpuNs = 0;   // The process's CPU time from its fork to its main.
};

// The latest main of a list that isn't empty; marks of several processes may stand in any order.
long long LastMainNs(const std::vector<Mark>& marks);

// Whether the file has come to `count` lines. Whoever waits for the last of many starts asks this
// again and again, on the cores on which they happen; to read the marks each time would cost more.
[[nodiscard]] bool HasLines(const std::string& path, std::size_t count);

// The file of one run; the services append to it.
class Marks {
 public:
  Marks(const PmSandbox::Sandbox& sandbox, const std::string& name);

  // Its path inside the sandbox: the first argument of the services.
  [[nodiscard]] const std::string& Path() const { return path_; }

  // Waits until `count` services have come to their main and yields all marks in their order.
  // Throws if they don't come.
  [[nodiscard]] std::vector<Mark> Await(std::size_t count) const;

 private:
  [[nodiscard]] std::vector<Mark> Read() const;

  const PmSandbox::Sandbox& sandbox_;
  std::string path_;
};

}  // namespace PmBench

#endif  // BENCH_MARKS_H
