// A service in each language, on the real daemon: the examples as they are shown.
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

constexpr const char* kUser = "service";

class EveryLanguage : public ScenarioTest {
 protected:
  void SetUp() override {
    ScenarioTest::SetUp();
    sandbox_.AddUser(kUser, 1000, 1000, "/");
  }

  void InstallExample(const std::string& file) {
    sandbox_.InstallProgram(PM_EXAMPLES_DIR + file, "/opt/test/" + file, 1000, 1000);
  }
  static App Reports(const std::string& name, const std::string& program,
                     std::vector<std::string> arguments, const std::string& environment) {
    return {name,
            program,
            std::move(arguments),
            {{"uid", kUser},
             {"gid", kUser},
             {"isReporting", "true"},
             {"restart", "on-failure"},
             {"envArgv", environment}}};
  }

  App InC() {
    sandbox_.InstallProgram(ProgramPath("../lib/libprocess_manager_agent.so.1"),
                            "/opt/test/lib/libprocess_manager_agent.so.1");
    sandbox_.InstallProgram(ProgramPath("c_service"), "/opt/test/c_service", 1000, 1000);
    return Reports("in_c", "/opt/test/c_service", {},
                   "{PROC_NAME: in_c, LD_LIBRARY_PATH: /opt/test/lib}");
  }
  App InShell() {
    sandbox_.InstallProgram(ProgramPath("pm-notify"), "/opt/test/pm-notify", 1000, 1000);
    InstallExample("shell_service.sh");
    return Reports(
        "in_shell", "/opt/test/pm-notify",
        {"--serve", "--ready-when", "/opt/test/shell_service.sh --is-ready /run/sandbox/ready",
         "--beat", "--", "/opt/test/shell_service.sh", "--serve", "/run/sandbox/ready"},
        "{PROC_NAME: in_shell}");
  }

  // Stopped long enough to be missed, and then not missed any more: it beats.
  void ExpectBeats(const std::string& name, pid_t pid) {
    const std::string told = "Process heart beat notify. (app=" + name + ",pid=";
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    EXPECT_TRUE(log_.WaitFor([&](const LogLine& line) {
                      return line.text.find(told) != std::string::npos &&
                             line.text.find("status=lost") != std::string::npos;
                    })
                    .has_value());
    ASSERT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_TRUE(Await(told + std::to_string(pid) + ",status=recovery)"));
  }

  // Dies, comes back, reports again, beats, and ends as it is asked to.
  void LiveThrough(const std::string& name) {
    const std::string report = "PM revice BASESERVICE_STATE_REPORT msg from " + name;
    std::size_t before = log_.Lines().size();
    ASSERT_EQ(kill(AwaitStarted(name), SIGKILL), 0);
    EXPECT_TRUE(Await(report, before));
    const pid_t second = AwaitStarted(name, before);
    ExpectBeats(name, second);
    before = log_.Lines().size();
    ASSERT_EQ(kill(second, SIGTERM), 0);
    EXPECT_TRUE(Await("PROCMGR : Process=" + name + ", pid=" + std::to_string(second) +
                          " was self terminated, the exit status is 0.",
                      before));
  }
};

TEST_F(EveryLanguage, ReportsComesBackAndBeats) {
  const std::vector<App> apps = {InC(), InShell()};
  Boot(apps);
  for (const App& app : apps) {
    EXPECT_TRUE(Await("InitBaseApp:" + app.name + " success, report RUNNING!"));
  }
  AwaitBooted();
  for (const App& app : apps) {
    SCOPED_TRACE(app.name);
    LiveThrough(app.name);
  }
}

}  // namespace
}  // namespace PmTest
