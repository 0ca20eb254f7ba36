// Running the checker in a folder of its own.
#ifndef TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H
#define TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

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

// "LINE:COLUMN severity rule" of each finding about `file`.
inline std::vector<std::string> Brief(const std::string& json, const std::string& file) {
  std::vector<std::string> list;
  const auto document = nlohmann::json::parse(json);
  for (const auto& checked : document.at("files")) {
    for (const auto& finding : checked.at("findings")) {
      if (finding.value("file", "").ends_with(file)) {
        list.push_back(std::to_string(finding.at("line").get<int>()) + ':' +
                       std::to_string(finding.at("column").get<int>()) + ' ' +
                       finding.at("severity").get<std::string>() + ' ' +
                       finding.at("rule").get<std::string>());
      }
    }
  }
  return list;
}

// One service to a line, `rest` being its keys beside those that are required.
inline std::string Line(const std::string& name, const std::string& rest) {
  return "  - {appName: " + name + ", binPath: /b, uid: 1, gid: 1" + (rest.empty() ? "" : ", ") +
         rest + "}\n";
}

}  // namespace PmTest

#endif  // TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H
