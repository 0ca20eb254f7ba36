// A service on the agent library and the real daemon, from the boot to its end.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

class AgentService : public ScenarioTest {};

TEST_F(AgentService, IsReadyBeatsReportsAgainAfterARestartAndSaysThatItGoesDown) {
  const std::string report = "PM revice BASESERVICE_STATE_REPORT msg from hello";
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
  ASSERT_TRUE(Await("InitBaseApp:hello success, report RUNNING!"));
  AwaitBooted();
  std::size_t before = log_.Lines().size();
  ASSERT_EQ(kill(AwaitStarted("hello"), SIGKILL), 0);
  EXPECT_TRUE(Await(report, before));
  EXPECT_EQ(log_.Count("status=lost"), 0U) << "a beat was missed";
  const pid_t second = AwaitStarted("hello", before);
  before = log_.Lines().size();
  ASSERT_EQ(kill(second, SIGTERM), 0);
  EXPECT_TRUE(Await(report, before));
  EXPECT_TRUE(Await("PROCMGR : Process=hello, pid=" + std::to_string(second) +
                        " was self terminated, the exit status is 0.",
                    before));
}

}  // namespace
}  // namespace PmTest
