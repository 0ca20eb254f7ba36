// What the tests of the host's resources share.
#ifndef TESTS_SCENARIO_HOST_TEST_H
#define TESTS_SCENARIO_HOST_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/scenario_test.h"

namespace PmTest {

inline constexpr const char* kConfigDir = "/etc/zur/base-plat/process-manager/";

class HostTest : public ScenarioTest {
 protected:
  // Waits until the bring-up of the daemon that began to log at `from` is through, and yields what
  // the log has got from there to that point, as MaskLine gives it. The boot thread logs the end of
  // the bring-up itself, so nothing that the boot says is missing.
  std::vector<std::string> AwaitBoot(std::size_t from = 0) {
    const auto end = log_.WaitFor("InitBaseApplication end", from);
    if (!end.has_value()) {
      ADD_FAILURE() << "the boot did not go on";
      return {};
    }
    return log_.Masked(from, *end + 1);
  }

  // Waits for a child message in which `text` stands.
  bool AwaitMessage(const std::string& text) {
    return log_
        .WaitFor([&](const LogLine& line) {
          return line.text.starts_with("pm revice child process errinfo size=") &&
                 line.text.find(text) != std::string::npos;
        })
        .has_value();
  }

  // Takes away what stands at the path, a folder with everything in it.
  void Remove(const std::string& inside) const {
    std::filesystem::remove_all(sandbox_.Outside(inside));
  }
};

// How many of the lines hold `part`.
inline std::size_t CountLines(const std::vector<std::string>& lines, const std::string& part) {
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(),
                    [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

}  // namespace PmTest

#endif  // TESTS_SCENARIO_HOST_TEST_H
