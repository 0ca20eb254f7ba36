// The log lines of these test programs.
#ifndef TESTS_UNIT_MESSAGE_TAKEN_LOG_H
#define TESTS_UNIT_MESSAGE_TAKEN_LOG_H

#include <string>
#include <vector>

namespace ProcMgr::Test {

// The lines since the last call, or since the start: the first letter of the level, a blank, the
// text.
std::vector<std::string> TakeLog();

}  // namespace ProcMgr::Test

#endif  // TESTS_UNIT_MESSAGE_TAKEN_LOG_H
