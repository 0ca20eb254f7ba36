// The log lines of the test program. A program that includes this has no other log.
#ifndef TESTS_UNIT_APP_LOG_LINES_H
#define TESTS_UNIT_APP_LOG_LINES_H

#include <algorithm>
#include <string>
#include <vector>

#include "sandbox/log_reader.h"
#include "tests/support/taken_log.h"

namespace ProcMgr::App {

using Lines = std::vector<std::string>;

using PmTest::TakeLog;

// The lines since the last call, with traces and pids hidden, as PmSandbox::Mask does it.
inline Lines MaskedLog() {
  Lines log = TakeLog();
  std::transform(log.begin(), log.end(), log.begin(), PmSandbox::Mask);
  return log;
}

// The last of them; empty if there was none.
inline std::string LastLine() {
  const Lines log = MaskedLog();
  return log.empty() ? std::string() : log.back();
}

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_LOG_LINES_H
