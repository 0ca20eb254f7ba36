// A log that keeps its lines, in place of the real one.
//
// A test program that links pm_captured_log gets these definitions of core/log.h: what the code
// under test logs can be looked at with its level and its routing, and nothing reaches the machine.
#ifndef TESTS_UNIT_HOST_CAPTURED_LOG_H
#define TESTS_UNIT_HOST_CAPTURED_LOG_H

#include <string>
#include <vector>

namespace ProcMgr::Testing {

// The lines since the last call, in their order: the first letter of the level and the text, with
// an R in front if the call is one that a quick start routes to the kernel log: "E TEXT",
// "RW TEXT". Any thread.
std::vector<std::string> TakeLog();

}  // namespace ProcMgr::Testing

#endif  // TESTS_UNIT_HOST_CAPTURED_LOG_H
