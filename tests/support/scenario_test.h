// The fixture of every test that boots the real daemon.
#ifndef TESTS_SUPPORT_SCENARIO_TEST_H
#define TESTS_SUPPORT_SCENARIO_TEST_H

#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "sandbox/service_file.h"
#include "sandbox/service_lines.h"
#include "tests/support/service_report.h"
#include "tests/support/test.h"

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

inline constexpr const char* kConfigDir = Sandbox::kConfigDir;

// How many of the lines hold `part`.
inline std::size_t CountLines(const std::vector<std::string>& lines, const std::string& part) {
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(),
                    [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

// Gives each test a sandbox with the platform's groups on core 0, its log, and test-service at
// kService. At the end of a test everything in the sandbox is killed, a sanitizer's report fails
// the test, and a failed test shows the whole log.
class ScenarioTest : public ::testing::Test {
 protected:
  static constexpr const char* kService = "/opt/test/test-service";
  static constexpr const char* kHelloService = "/opt/test/hello";
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

  // A test-service of that name, and one that has to report its state as a base service.
  static App Service(const std::string& name, std::vector<std::string> arguments = {},
                     Keys keys = {}) {
    return {name, kService, std::move(arguments), std::move(keys)};
  }
  static App Reporting(const std::string& name, Keys keys = {}) {
    keys.emplace_back("isReporting", "true");
    return Service(name, {}, std::move(keys));
  }

  // A service on the agent library, under a user of its own, to which `keys` are given.
  App HelloService(Keys keys) const {
    sandbox_.AddUser("hello", 1000, 1000, "/");
    sandbox_.InstallProgram(ProgramPath("hello_service"), kHelloService, 1000, 1000);
    keys.insert(keys.end(), {{"uid", "hello"},
                             {"gid", "hello"},
                             {"envArgv", "{PROC_NAME: hello}"},
                             {"isReporting", "true"}});
    return {"hello", kHelloService, {}, std::move(keys)};
  }

  // A user that is in a further group, and a program that only its own group may run.
  void AddOperator() const {
    sandbox_.AddGroup("extra", 7100);
    sandbox_.AddUser("operator", 7000, 7001, "/home/operator", {"extra"});
    sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/operators", 0, 7001, 0750);
  }

  // Starts the daemon with the given arguments.
  void Start(const std::vector<std::string>& arguments) {
    daemon_.emplace(sandbox_, arguments, Process::Options{{}, "process-manager", beforeDaemon_});
  }

  // Boots the given applications, the base file followed by `arguments`, without waiting.
  void Boot(const std::vector<App>& apps, std::vector<std::string> arguments = {}) {
    sandbox_.WriteFile(kBaseFile, ServiceFile(apps));
    arguments.insert(arguments.begin(), kBaseFile);
    Start(arguments);
  }

  // Waits for a line behind index `from` that holds `part`.
  [[nodiscard]] bool Await(std::string_view part, std::size_t from = 0) const {
    return log_.WaitFor(part, from).has_value();
  }

  // `times` lines hold `part`, and not one more. Waits for them: the log is written behind what it
  // tells, so what a channel or a status has shown may not be in it yet.
  void ExpectTold(std::string_view part, std::size_t times = 1) const {
    EXPECT_TRUE(log_.WaitForCount(part, times)) << part;
    EXPECT_EQ(log_.Count(part), times) << part;
  }

  // Waits for a child message in which `text` stands.
  [[nodiscard]] bool AwaitMessage(const std::string& text) const {
    return log_
        .WaitFor([&](const LogLine& line) {
          return line.level == 4 &&
                 line.text.starts_with("pm revice child process errinfo size=") &&
                 line.text.find(text) != std::string::npos;
        })
        .has_value();
  }

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
  void AwaitBooted() { ASSERT_TRUE(Await("InitBaseApplication end")); }

  // Waits for the start of `name` behind index `from` and yields the pid that it names.
  pid_t AwaitStarted(const std::string& name, std::size_t from = 0) {
    const auto pid = PmSandbox::AwaitStart(log_, name, from);
    if (!pid.has_value()) {
      ADD_FAILURE() << name << " has not been started";
    }
    return pid.value_or(-1);
  }

  // What the platform has been told of a sensor: "0" for on, "2" for off; empty if nothing.
  [[nodiscard]] std::string Sensor(const std::string& name) const {
    return sandbox_.ReadFile("/run/plat/sensor/" + name);
  }
  [[nodiscard]] bool AwaitSensor(const std::string& name, const std::string& value) const {
    return Eventually([&] { return Sensor(name) == value; });
  }

  Sandbox sandbox_;
  LogReader log_{sandbox_};
  std::optional<Daemon> daemon_;
  // What the daemon's starter does to it (Process::Options::before).
  void (*beforeDaemon_)() = nullptr;
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SCENARIO_TEST_H
