// Processes that the manager did not start, announced with pmupload.

#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

constexpr const char* kTool = "/opt/test/pmupload";
constexpr uid_t kUser = 7000;

class Upload : public ScenarioTest {
 protected:
  void SetUp() override {
    ScenarioTest::SetUp();
    sandbox_.InstallProgram(ProgramPath("pmupload"), kTool);
    sandbox_.AddUser("guest", kUser, kUser, "/home/guest");
    sandbox_.WriteFile(std::string(kConfigDir) + "procmgr_cfg.yaml",
                       "watch_dog: {enable: false}\npmupload: {enable: true}\n");
    std::string groups = "sharepool_groups:\n";
    for (int i = 1; i < kGroups; ++i) {
      groups += "  - group_" + std::to_string(i) + ": {mem_size: 4}\n";
    }
    sandbox_.WriteFile("/etc/sharepool/groups.yaml", groups);
    Boot({Reporting("iammgr")});
    ASSERT_TRUE(access_.BecomeReady());
    AwaitBooted();
  }

  // Runs the tool to its end; `prefix` is what it is started through.
  int RunTool(std::vector<std::string> arguments, std::string& output,
              std::vector<std::string> prefix = {}) {
    prefix.emplace_back(kTool);
    prefix.insert(prefix.end(), arguments.begin(), arguments.end());
    const std::string program = prefix.front();
    Process tool(sandbox_, program, {prefix.begin() + 1, prefix.end()},
                 {{}, "tool" + std::to_string(++runs_)});
    const std::optional<int> status = tool.WaitExit();
    output = tool.Output();
    return status.has_value() && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
  }

  // "NAME PID STATE" of the next report to "iammgr".
  std::string NextReport() {
    const auto report = access_.NextReport();
    return report.has_value() ? report->appName + " " + std::to_string(report->pid) + " " +
                                    std::to_string(report->state)
                              : "(none)";
  }

  static constexpr int kGroups = 1024;
  AgentPeer access_{sandbox_, "iammgr"};
  int runs_ = 0;
};

TEST_F(Upload, ProcessIsAnnouncedWatchedAndMissed) {
  Process guest(sandbox_, kService, {}, {{}, "guest"});
  const std::string pid = "--pid=" + std::to_string(guest.Pid());
  std::string output;
  ASSERT_EQ(RunTool({"--procName=visitor", "--rwGroups=group_1,group_9", pid}, output), 0)
      << output;
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), kGroups);
  EXPECT_THAT(output, HasSubstr("group_1\n"));
  EXPECT_THAT(output, HasSubstr("DEFAULT_MEM_GROUP\n"));
  const std::string identity = "visitor " + std::to_string(guest.Pid());
  EXPECT_EQ(NextReport(), identity + " 0");
  EXPECT_TRUE(Await("AddSharepoolGroup: success, pid=" + std::to_string(guest.Pid()) +
                    ", appName=visitor, groupName=group_9, permission=rw"));

  Process other(sandbox_, kService, {}, {{}, "other"});
  const std::string otherPid = "--pid=" + std::to_string(other.Pid());
  EXPECT_EQ(RunTool({"--procName=visitor", otherPid}, output), 1);
  EXPECT_EQ(RunTool({"--procName=iammgr", otherPid}, output), 1);
  EXPECT_TRUE(Await("is duplicate with existing pmupload apps"));
  EXPECT_TRUE(Await("is duplicate with already started apps by pm"));

  guest.Signal(SIGKILL);
  ASSERT_TRUE(guest.WaitExit().has_value());
  EXPECT_EQ(NextReport(), identity + " 3");
}

TEST_F(Upload, ToolBecomesItsCommand) {
  std::string output;
  EXPECT_EQ(RunTool({"--procName=worker", "--", "/bin/sh", "-c", "exit 42"}, output), 42) << output;
  EXPECT_THAT(NextReport(), HasSubstr("worker "));
  // The program that the exec will find is what the white list is asked about.
  sandbox_.InstallProgram("/bin/true", "/opt/test/real-tool");
  ASSERT_EQ(symlink("real-tool", sandbox_.Outside("/opt/test/tool").c_str()), 0);
  ASSERT_EQ(RunTool({"--procName=found", "--", "tool"}, output,
                    {"/usr/bin/env", "PATH=/nowhere:/opt/test:/bin"}),
            0)
      << output;
  EXPECT_TRUE(Await("pidAppName=found, binPath=/opt/test/real-tool"));
  EXPECT_EQ(RunTool({"--procName=lost", "--", "/nowhere/program"}, output), 2);
  EXPECT_EQ(RunTool({"--procName=both", "--pid=1", "--", "/bin/true"}, output), 2);
  EXPECT_EQ(RunTool({"--procName=none"}, output), 2);
}

// Root is believed of every process, everybody else of the own ones.
TEST_F(Upload, StrangersProcessIsNotBelieved) {
  const std::vector<std::string> asGuest = {"/usr/bin/setpriv", "--reuid=7000", "--regid=7000",
                                            "--clear-groups"};
  Process rootsOwn(sandbox_, kService, {}, {{}, "roots"});
  std::string output;
  const std::string pid = std::to_string(rootsOwn.Pid());
  EXPECT_EQ(RunTool({"--procName=stolen", "--pid=" + pid}, output, asGuest), 1) << output;
  EXPECT_TRUE(Await("PROCMGR : pmupload name=stolen, pid=" + pid + " from uid=7000"));
  EXPECT_EQ(RunTool({"--procName=own", "--", "/bin/true"}, output, asGuest), 0) << output;
}

}  // namespace
}  // namespace PmTest
