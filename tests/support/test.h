// What every test stands on: the frameworks, the library's containers, processes and files, and a
// folder of its own. The names of the frameworks' matchers are those of the tests.
#ifndef TESTS_SUPPORT_TEST_H
#define TESTS_SUPPORT_TEST_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/temp_folder.h"

namespace ProcMgr {

using namespace ::testing;
using namespace std::string_literals;
using std::chrono::milliseconds;

}  // namespace ProcMgr

namespace PmTest {

using namespace ::testing;
using namespace std::string_literals;
using std::chrono::milliseconds;

}  // namespace PmTest

#endif  // TESTS_SUPPORT_TEST_H
