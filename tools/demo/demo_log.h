// The manager's log, printed as it comes.
#ifndef TOOLS_DEMO_DEMO_LOG_H
#define TOOLS_DEMO_DEMO_LOG_H

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/steady_time.h"
#include "sandbox/log_reader.h"

namespace Demo {

class DemoLog {
 public:
  // `interrupted` turns true when the user has had enough.
  DemoLog(const PmSandbox::LogReader& log, const std::atomic<bool>& interrupted)
      : log_(log), interrupted_(interrupted), start_(ProcMgr::SteadyNow()) {}

  // Prints lines until each of `parts` has stood in one, in whatever order, and yields the last of
  // those lines. Throws if they haven't come within 30 seconds, with `what` to say what that means,
  // or if the user has interrupted.
  PmSandbox::LogLine Await(std::vector<std::string> parts, const std::string& what);
  // Prints lines until the user interrupts.
  void PrintOn();

 private:
  // Prints the next line; none came within a moment if it yields no line.
  std::optional<PmSandbox::LogLine> PrintNext();

  const PmSandbox::LogReader& log_;
  const std::atomic<bool>& interrupted_;
  const ProcMgr::SteadyTime start_;
  std::size_t next_ = 0;
};

}  // namespace Demo

#endif  // TOOLS_DEMO_DEMO_LOG_H
