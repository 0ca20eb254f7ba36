// The fixture of every test that boots the real daemon.
#ifndef TESTS_SUPPORT_SCENARIO_TEST_H
#define TESTS_SUPPORT_SCENARIO_TEST_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/daemon.h"
#include "tests/support/log_reader.h"
#include "tests/support/sandbox.h"
#include "tests/support/service_file.h"
#include "tests/support/service_report.h"

namespace PmTest {

// Gives each test a sandbox with the platform's groups on core 0, its log, and test-service at
// kService. At the end of a test everything in the sandbox is killed, a sanitizer's report fails
// the test, and a failed test shows the whole log.
class ScenarioTest : public ::testing::Test {
 protected:
  static constexpr const char* kService = "/opt/test/test-service";
  static constexpr const char* kBaseFile = "/run/sandbox/base.yaml";

  void SetUp() override {
    sandbox_.MakePlatformGroups("0");
    sandbox_.InstallProgram(ProgramPath("test-service"), kService);
  }

  void TearDown() override {
    if (daemon_.has_value()) {
      daemon_->KillAll();
      EXPECT_EQ(daemon_->SanitizerReport(), "");
      if (HasFailure()) {
        ADD_FAILURE() << "the daemon's log:\n"
                      << log_.Text() << "its output:\n"
                      << daemon_->Output();
      }
    }
  }

  // Starts the daemon with the given arguments.
  void Start(const std::vector<std::string>& arguments) { daemon_.emplace(sandbox_, arguments); }

  // Boots the given applications, the base file followed by `arguments`, without waiting.
  void Boot(const std::vector<App>& apps, std::vector<std::string> arguments = {}) {
    sandbox_.WriteFile(kBaseFile, ServiceFile(apps));
    arguments.insert(arguments.begin(), kBaseFile);
    Start(arguments);
  }

  // Waits until the bring-up is through.
  void AwaitBooted() { ASSERT_TRUE(log_.WaitFor("InitBaseApplication end").has_value()); }

  // Waits for the start of `name` behind index `from` and yields the pid that it names.
  pid_t AwaitStarted(const std::string& name, std::size_t from = 0) {
    const auto index = log_.WaitFor("Start baseApp success appName=" + name + ",", from);
    if (!index.has_value()) {
      ADD_FAILURE() << name << " has not been started";
      return -1;
    }
    const std::string text = log_.At(*index).text;
    return std::stoi(text.substr(text.find("pid=") + 4));
  }

  Sandbox sandbox_;
  LogReader log_{sandbox_};
  std::optional<Daemon> daemon_;
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SCENARIO_TEST_H
