// A log that keeps its lines, in place of the real one.
//
// A test program that links pm_captured_log gets these definitions of core/log.h: what the code
// under test logs can be looked at with its level and its routing, and nothing reaches the machine.
#ifndef TESTS_UNIT_HOST_CAPTURED_LOG_H
#define TESTS_UNIT_HOST_CAPTURED_LOG_H

#include <syslog.h>

#include <ostream>
#include <string>
#include <vector>

namespace ProcMgr::Testing {

struct LogLine {
  int level;
  bool isRouted;
  std::string text;

  bool operator==(const LogLine&) const = default;
};

std::ostream& operator<<(std::ostream& out, const LogLine& line);

inline LogLine Plain(int level, std::string text) {
  return {level, false, std::move(text)};
}
inline LogLine Routed(int level, std::string text) {
  return {level, true, std::move(text)};
}

// The lines since the last call, in their order. Any thread.
std::vector<LogLine> TakeLog();

}  // namespace ProcMgr::Testing

#endif  // TESTS_UNIT_HOST_CAPTURED_LOG_H
