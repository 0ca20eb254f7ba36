// A service on the agent library and the real daemon, from the boot to a restart.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

class AgentService : public ScenarioTest {
 protected:
  // Boots hello_service under a user of its own and waits until it has reported itself.
  void BootHello() {
    sandbox_.AddUser("hello", 1000, 1000, "/");
    sandbox_.InstallProgram(ProgramPath("hello_service"), "/opt/test/hello", 1000, 1000);
    Boot({{"hello",
           "/opt/test/hello",
           {},
           {{"uid", "hello"},
            {"gid", "hello"},
            {"envArgv", "{PROC_NAME: hello}"},
            {"isReporting", "true"},
            {"restart", "on-failure"}}}});
    AwaitBooted();
    ASSERT_TRUE(log_.WaitFor("InitBaseApp:hello success, report RUNNING!").has_value());
  }
};

TEST_F(AgentService, IsReadyBeatsAndReportsAgainAfterARestart) {
  BootHello();
  const pid_t first = AwaitStarted("hello");
  const std::size_t restart = log_.Lines().size();
  ASSERT_EQ(kill(first, SIGKILL), 0);
  EXPECT_TRUE(
      log_.WaitFor("PM revice BASESERVICE_STATE_REPORT msg from hello", restart).has_value());
  EXPECT_EQ(log_.Text().find("status=lost"), std::string::npos) << "a beat was missed";
}

TEST_F(AgentService, SaysThatItGoesDown) {
  BootHello();
  const std::size_t end = log_.Lines().size();
  const pid_t pid = AwaitStarted("hello");
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_TRUE(log_.WaitFor("PM revice BASESERVICE_STATE_REPORT msg from hello", end).has_value());
  EXPECT_TRUE(log_.WaitFor("PROCMGR : Process=hello, pid=" + std::to_string(pid) +
                               " was self terminated, the exit status is 0.",
                           end)
                  .has_value());
}

}  // namespace
}  // namespace PmTest
