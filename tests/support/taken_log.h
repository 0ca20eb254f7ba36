// The log of a test program as a whole. A program that includes this has no other log.
#ifndef TESTS_SUPPORT_TAKEN_LOG_H
#define TESTS_SUPPORT_TAKEN_LOG_H

#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace PmTest {

// From before main on, so that no line is missed.
inline LogCapture programLog;

// The lines since the last call, each with the first letter of its level in front: "E TEXT".
inline std::vector<std::string> TakeLog() {
  return programLog.Take();
}

}  // namespace PmTest

#endif  // TESTS_SUPPORT_TAKEN_LOG_H
