#include "tests/unit/message/taken_log.h"

#include "tests/support/log_capture.h"

namespace ProcMgr::Test {
namespace {

// From before main on, so that no line is missed.
PmTest::LogCapture capture;

}  // namespace

std::vector<std::string> TakeLog() {
  return capture.Take();
}

}  // namespace ProcMgr::Test
