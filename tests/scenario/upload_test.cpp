// Processes that the manager did not start, announced with pmupload.
#include <sys/syscall.h>

#include "message/upload_msg.h"
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
    sandbox_.WriteSettings("watch_dog: {enable: false}\npmupload: {enable: true}\n");
    std::string groups = "sharepool_groups:\n";
    for (int i = 1; i < kGroups; ++i) {
      groups += "  - group_" + std::to_string(i) + ": {mem_size: 4}\n";
    }
    sandbox_.WriteFile("/etc/sharepool/groups.yaml", groups);
    sandbox_.WriteFile("/etc/sharepool/white.yaml",
                       std::string("add_all_groups_white_lists: [") + kListed + "]\n");
    // The last service waits until "gate" is ready.
    Boot({Reporting("iammgr"), Reporting("gate", {{"dependList", "[iammgr]"}}),
          Service("late", {}, {{"dependList", "[gate]"}})});
    ASSERT_TRUE(access_.BecomeReady() && gate_.AwaitChannel());
    ASSERT_EQ(NextReport().substr(0, 5), "gate ");
  }

  // Announces on a connection of user `uid` and yields the response.
  std::string Announce(const std::string& name, pid_t pid, gid_t gid, const std::string& path,
                       uid_t uid) {
    PmUpload::LoadAppInfo info;
    info.pidAppName = name;
    info.binPath = path;
    info.pid = pid;
    info.gid = gid;
    PmUpload::UploadMsg msg;
    EXPECT_TRUE(PmUpload::PackInfoRequest(info, msg));
    std::optional<RawPeer> peer;
    // The ids of one thread, which the kernel records at the connect.
    std::thread([&] {
      if (syscall(SYS_setresuid, -1, uid, -1) == 0) {
        peer = ConnectRaw(sandbox_, "PROCMGR");
      }
    }).join();
    if (!peer.has_value() || !peer->Send(MakePacket(kHello, 0, "tester")) ||
        !peer->Send(MakePacket(kRequest, 1, {reinterpret_cast<const char*>(&msg), sizeof(msg)}))) {
      return "(no connection)";
    }
    const auto response = peer->Receive();
    return response.has_value() ? response->data : "(no response)";
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
  static constexpr const char* kListed = "/opt/test/listed";
  AgentPeer access_{sandbox_, "iammgr"};
  AgentPeer gate_{sandbox_, "gate"};
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

TEST_F(Upload, OnlyWhatTheKernelConfirmsCounts) {
  sandbox_.InstallProgram(ProgramPath("test-service"), kListed);
  const Process guest(sandbox_, "/usr/bin/setpriv",
                      {"--reuid=7000", "--regid=7000", "--clear-groups", kService}, {{}, "guest"});
  ASSERT_TRUE(Eventually([&] { return StatusField(guest.Pid(), "Gid").starts_with("7000"); }));
  const std::string pid = std::to_string(guest.Pid());
  // The program of the white list would be in every group.
  EXPECT_EQ(Announce("claimer", guest.Pid(), 0, kListed, kUser).substr(0, 2), "1#");
  const auto report = access_.NextReport();
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->appName, "claimer");
  EXPECT_EQ(report->gid, 7000U);
  EXPECT_TRUE(Await("PROCMGR : pmupload pid=" + pid + " doesn't run under gid=0 but under 7000"));
  EXPECT_TRUE(Await("pmupload pid=" + pid + " doesn't run /opt/test/listed"));
  ASSERT_TRUE(Await("appName=claimer, groupName=DEFAULT_MEM_GROUP, permission=alloc"));
  EXPECT_EQ(log_.Count("appName=claimer, groupName=group_"), 0U);

  // Nobody, a kernel thread or a thread of somebody.
  const pid_t thread = Threads(daemon_->Pid()).back();
  for (const pid_t none : {pid_t{4194303}, thread, pid_t{0}, pid_t{-1}}) {
    EXPECT_EQ(Announce("ghost", none, 0, kService, 0).substr(0, 2), "0#");
    EXPECT_TRUE(Await("PROCMGR : pmupload name=ghost, pid=" + std::to_string(none) +
                      " from uid=0, pid=" + std::to_string(getpid()) +
                      " names a process that isn't there"));
  }
  EXPECT_EQ(Announce("ghost", 4194303, 0, kService, kUser).substr(0, 2), "0#");
  EXPECT_TRUE(Await("name=ghost, pid=4194303 from uid=7000, pid="));
}

TEST_F(Upload, ServiceTakesItsNameBack) {
  Process namesake(sandbox_, kService, {}, {{}, "namesake"});
  EXPECT_EQ(Announce("late", namesake.Pid(), 0, kService, 0).substr(0, 2), "1#");
  EXPECT_EQ(NextReport(), "late " + std::to_string(namesake.Pid()) + " 0");
  ASSERT_TRUE(gate_.ReportState(kStateReady));
  const pid_t late = AwaitStarted("late");
  EXPECT_EQ(NextReport(), "late " + std::to_string(late) + " 0");
  // Whichever comes first, the pass that looks after the announced or the end.
  namesake.Signal(SIGKILL);
  ASSERT_TRUE(namesake.WaitExit().has_value());
  EXPECT_TRUE(Await("pmupload pid=" + std::to_string(namesake.Pid()) +
                    ", name=late isn't watched any more, an app of that name was started"));
  ASSERT_TRUE(Kill(late));
  EXPECT_EQ(NextReport().substr(0, 5 + std::to_string(late).size()),
            "late " + std::to_string(late));
}

}  // namespace
}  // namespace PmTest
