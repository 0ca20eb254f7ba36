// The log lines of the test's own process.
#ifndef TESTS_SUPPORT_CAPTURED_LOG_H
#define TESTS_SUPPORT_CAPTURED_LOG_H

#include <string>
#include <vector>

namespace ProcMgr::Test {

// The lines since the last call, or since the start, each with its level in front: "error TEXT",
// "warning TEXT", "info TEXT" or "debug TEXT". A program that links this call has no other log, and
// routed calls aren't told apart from plain ones. Any thread.
std::vector<std::string> TakeLog();

}  // namespace ProcMgr::Test

#endif  // TESTS_SUPPORT_CAPTURED_LOG_H
