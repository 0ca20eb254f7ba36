// Frames for a manager that is fuzzed, and what it reads out of them.
#ifndef TESTS_FUZZ_MANAGER_FRAMES_H
#define TESTS_FUZZ_MANAGER_FRAMES_H

#include <array>
#include <string>
#include <vector>

#include "message/request_msg.h"
#include "tests/fuzz/fuzz_input.h"

namespace PmTest {

// The base services, and the applications of their start-up files.
inline constexpr const char* kPriorityApp = "early";
inline constexpr std::array kAppNames = {"job",   kPriorityApp, "stubborn", "work1",
                                         "work2", "chosen",     "stray",    "quiet",
                                         "once",  "iammgr",     "ventrix",  "nobody"};

// One of them, or any other.
std::string MakeName(FuzzBytes& input);

// A whole frame of that type: well packed, or with any body, of any length, if there is no such
// type to be sent to the manager.
std::string MakeFrame(FuzzBytes& input, ProcMgr::Message::RequestType type);

// The applications that the manager finds in the frame if it comes from `sender`.
std::vector<std::string> NamesIn(const ProcMgr::Message::RequestMsg& frame,
                                 const std::string& sender);

}  // namespace PmTest

#endif  // TESTS_FUZZ_MANAGER_FRAMES_H
