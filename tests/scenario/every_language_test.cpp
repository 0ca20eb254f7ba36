// A service in each language, on the real daemon: the examples as they are shown. PM_BINDINGS_DIR
// is set if there is a Python that can load the library.
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

constexpr const char* kUser = "service";

class EveryLanguage : public ScenarioTest {
 protected:
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

  void SetUp() override {
    ScenarioTest::SetUp();
    sandbox_.AddUser(kUser, 1000, 1000, "/");
    sandbox_.InstallProgram(ProgramPath("../lib/libprocess_manager_agent.so.1"),
                            "/opt/test/lib/libprocess_manager_agent.so.1");
    // As the system's set-up makes it.
    sandbox_.WriteFile("/run/pm-notify/.made", "");
    std::filesystem::permissions(sandbox_.Outside("/run/pm-notify"),
                                 std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
  }

  App InC() {
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

#ifdef PM_BINDINGS_DIR
  App InPython() {
    InstallExample("python_service.py");
    sandbox_.InstallProgram(PM_BINDINGS_DIR "python/process_manager.py",
                            "/opt/test/python/process_manager.py");
    return Reports("in_python", "/opt/test/python_service.py", {},
                   "{PROC_NAME: in_python, LD_LIBRARY_PATH: /opt/test/lib, "
                   "PYTHONPATH: /opt/test/python, PYTHONDONTWRITEBYTECODE: '1'}");
  }
#endif

  [[nodiscard]] bool AwaitLost(const std::string& name) const {
    return log_
        .WaitFor([&](const LogLine& line) {
          return line.text.find("heart beat notify. (app=" + name + ",") != std::string::npos &&
                 line.text.find("status=lost") != std::string::npos;
        })
        .has_value();
  }
};

TEST_F(EveryLanguage, ReportsComesBackAndBeats) {
  std::vector<App> apps = {InC(), InShell()};
#ifdef PM_BINDINGS_DIR
  apps.push_back(InPython());
#endif
  Boot(apps);
  for (const App& app : apps) {
    EXPECT_TRUE(Await("InitBaseApp:" + app.name + " success, report RUNNING!"));
  }
  AwaitBooted();
  // Each dies, comes back and reports again.
  const std::size_t before = log_.Lines().size();
  for (const App& app : apps) {
    ASSERT_TRUE(Kill(AwaitStarted(app.name)));
  }
  std::map<std::string, pid_t> pids;
  for (const App& app : apps) {
    EXPECT_TRUE(Await("PM revice BASESERVICE_STATE_REPORT msg from " + app.name, before));
    pids[app.name] = AwaitStarted(app.name, before);
  }
  // Stopped long enough to be missed, and then not missed any more: it beats.
  for (const auto& [name, pid] : pids) {
    ASSERT_TRUE(Kill(pid, SIGSTOP)) << name;
  }
  for (const auto& [name, pid] : pids) {
    EXPECT_TRUE(AwaitLost(name)) << name;
    ASSERT_TRUE(Kill(pid, SIGCONT)) << name;
    EXPECT_TRUE(Await("(app=" + name + ",pid=" + std::to_string(pid) + ",status=recovery)"));
  }
  // It ends as it is asked to.
  for (const auto& [name, pid] : pids) {
    ASSERT_TRUE(Kill(pid, SIGTERM)) << name;
    EXPECT_TRUE(Await("PROCMGR : Process=" + name + ", pid=" + std::to_string(pid) +
                      " was self terminated, the exit status is 0."));
  }
}

}  // namespace
}  // namespace PmTest
