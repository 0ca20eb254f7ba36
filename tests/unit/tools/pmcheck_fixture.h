// Running the checker in a folder of its own.
#ifndef TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H
#define TESTS_UNIT_TOOLS_PMCHECK_FIXTURE_H

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstring>
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

class Checker {
 public:
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

class PmCheck : public ::testing::Test, protected Checker {
 protected:
  using Checker::Run;
};

// A 64 bit little-endian ELF file without segments.
inline std::string Elf(Elf64_Half machine) {
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident,
              "\x7f"
              "ELF\x02\x01\x01",
              7);
  header.e_machine = machine;
  header.e_phentsize = sizeof(Elf64_Phdr);
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

// "FILE:LINE:COLUMN severity rule" of each finding.
inline std::vector<std::string> Brief(const std::string& json) {
  std::vector<std::string> list;
  const auto document = nlohmann::json::parse(json);
  for (const auto& checked : document.at("files")) {
    for (const auto& finding : checked.at("findings")) {
      list.push_back(finding.value("file", "") + ':' + std::to_string(finding.value("line", 0)) +
                     ':' + std::to_string(finding.value("column", 0)) + ' ' +
                     finding.at("severity").get<std::string>() + ' ' +
                     finding.at("rule").get<std::string>());
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
