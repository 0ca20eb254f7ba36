// Running the checker in a folder of its own.
#ifndef TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H
#define TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/temp_folder.h"

namespace PmTest {

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

class PmCheck : public ::testing::Test {
 protected:
  // Runs it in the folder, so that the lines hold short names.
  Result Run(const std::string& arguments) {
    const std::string command =
        "cd '" + folder_.Path("") + "' && '" PMCHECK "' " + arguments + " 2>err";
    Result result;
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) {
      ADD_FAILURE() << "no shell";
      return result;
    }
    std::array<char, 4096> block{};
    for (std::size_t got = 0; (got = std::fread(block.data(), 1, block.size(), pipe)) > 0;) {
      result.out.append(block.data(), got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ostringstream err;
    err << std::ifstream(folder_.Path("err")).rdbuf();
    result.err = err.str();
    return result;
  }

  PmTest::TempFolder folder_;
};

}  // namespace PmTest

#endif  // TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H
