// What a service finds when its main begins, and how a child says what went wrong before that.

#include "base/text.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

class Child : public ScenarioTest {
 protected:
  static constexpr const char* kReport = "/run/sandbox/report";

  void SetUp() override {
    ScenarioTest::SetUp();
    AddOperator();
  }
};

TEST_F(Child, RunsAsItsUserWithTheUsersGroups) {
  Boot({{"worker",
         "/opt/test/operators",
         {"--report", kReport, "two words", "\"'"},
         {{"uid", "operator"}, {"gid", "7002"}}}});
  const ServiceReport report = AwaitReport(sandbox_, kReport);
  EXPECT_EQ(report.Get("uids"), "7000,7000,7000");
  EXPECT_EQ(report.Get("gids"), "7002,7002,7002");
  // The groups are the user's own, the configured group id adds none.
  EXPECT_EQ(report.Get("groups"), "7001,7100");
  EXPECT_EQ(report.Get("status.CapEff"), "0000000000000000");
  EXPECT_EQ(report.Get("argc"), "5");
  EXPECT_EQ(report.Get("argv.3"), "two words");
  EXPECT_EQ(report.Get("argv.4"), "\"'");
  EXPECT_EQ(report.Get("status.SigBlk"), "0000000000000000");
}

TEST_F(Child, EnvironmentFollowsTheTableAndNoDescriptorBesidesTheMessagePipe) {
  sandbox_.AddUser("home", 1000, 1000, "/home/of-1000");
  Boot({Service("plain", {"--report", "/run/sandbox/plain"}),
        Service("rich", {"--report", "/run/sandbox/rich"},
                {{"envArgv",
                  "{PROC_NAME: mine, HOME: /lost, ODD: 'a=b c', IS_RESTART: x, LD_PRELOAD: "
                  "/usr/lib/libasan.so.6}"},
                 {"startupEntryPath", "/opt/test/entry.yaml"}})});
  const ServiceReport plain = AwaitReport(sandbox_, "/run/sandbox/plain");
  std::vector<std::string> extra;
  for (const auto& [fd, target] : plain.Below("fd.")) {
    if (fd != "0" && fd != "1" && fd != "2") {
      extra.push_back(target);
    }
  }
  ASSERT_EQ(extra.size(), 2U) << plain.Get("fds");
  EXPECT_THAT(extra[0], MatchesRegex("pipe:.*"));
  EXPECT_EQ(extra[0], extra[1]);
  const std::map<std::string, std::string> expected = {
      {"HOME", "/home/of-1000"}, {"IS_RESTART", "0"}, {"PROC_NAME", "PROCMGR"}};
  std::map<std::string, std::string> actual = plain.Below("env.");
  // What the manager itself was started with comes along.
  for (const char* own :
       {"PATH", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    actual.erase(own);
  }
  EXPECT_EQ(actual, expected);
  const ServiceReport rich = AwaitReport(sandbox_, "/run/sandbox/rich");
  const std::pair<const char*, const char*> values[] = {
      {"PROC_NAME", "mine"},
      {"HOME", "/home/of-1000"},
      {"ODD", "a=b c"},
      {"IS_RESTART", "0"},
      {"LD_PRELOAD", "/lib64/libasan.so.4:libiam.so.1"},
      {"STARTUP_ENTRY_PATH", "/opt/test/entry.yaml"},
  };
  for (const auto& [key, value] : values) {
    EXPECT_EQ(rich.Get(std::string("env.") + key), value) << key;
  }
}

// Groups, cores and the limit of locked memory: Placement looks at every thread.
TEST_F(Child, MaySetItsPriority) {
  Boot({Service("placed", {"--report", kReport}, {{"isSetRtPrio", "true"}})});
  const ServiceReport report = AwaitReport(sandbox_, kReport);
  // In a container root may lack the right to raise a limit, and then the child must say so.
  constexpr unsigned kSysResource = 24;
  const auto capabilities =
      ProcMgr::ParseNumber<std::uint64_t>(StatusField(daemon_->Pid(), "CapEff"), 16);
  ASSERT_TRUE(capabilities.has_value());
  if ((*capabilities >> kSysResource & 1) != 0) {
    EXPECT_EQ(report.Get("limit.rtprio"), "99,99");
    EXPECT_EQ(log_.Count("pm revice child process errinfo"), 0U);
  } else {
    EXPECT_TRUE(AwaitMessage("app=placed,pid=" + report.Get("pid") + ",prlimit failed,errno=1;"));
  }
}

TEST_F(Child, FailuresBeforeTheExecReachTheLog) {
  // A user who owns the program passes the test of its execute bits, whoever he is.
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/strangers", 4242, 4242);
  sandbox_.WriteFile("/opt/test/no-program", "this is neither a script nor a binary\n", 0755);
  Boot({Service("lost", {"--report", kReport}, {{"resGroupName", "nowhere"}}),
        {"noexec", "/opt/test/no-program", {}, {}},
        {"stranger", "/opt/test/strangers", {}, {{"uid", "4242"}, {"gid", "4242"}}}});
  EXPECT_TRUE(AwaitMessage("app=lost,pid="));
  EXPECT_TRUE(AwaitMessage(
      ",add cgroup failed, cpu cgroup path=/sys/fs/cgroup/cpu/nowhere/tasks is not existed;"));
  EXPECT_TRUE(AwaitMessage("app=noexec,pid="));
  EXPECT_TRUE(AwaitMessage(",exec failed, errno=8;"));
  EXPECT_TRUE(AwaitMessage("app=stranger,pid="));
  EXPECT_TRUE(AwaitMessage(",getpwuid is null;"));
  // The first runs all the same; the others end with the code of a failed step.
  EXPECT_GT(AwaitReport(sandbox_, kReport).Pid(), 0);
  for (const std::string name : {"noexec", "stranger"}) {
    const auto end = log_.WaitFor("Process=" + name + ",");
    ASSERT_TRUE(end.has_value());
    EXPECT_THAT(log_.At(*end).text, HasSubstr("was self terminated, the exit status is 1."));
  }
}

TEST_F(Child, ProgramsThatTheUserMayNotRunAreRefused) {
  struct Case {
    std::string name;
    std::string uid;
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::string line;
  };
  const std::string dir = "/opt/test/";
  const Case cases[] = {
      {"root", "0", 0, 0, 0644, "cfg uid is root, but binPath=/opt/test/root uid=0"},
      {"owner", "7000", 7000, 7001, 0655, "cfg uid=7000, but binPath=/opt/test/owner uid=7000"},
      {"other", "7000", 0, 0, 0755, "cfg uid=7000, but binPath=/opt/test/other uid=0, gid=0"},
      {"member", "7000", 0, 7100, 0705, "cfg uid=7000, but binPath=/opt/test/member gid=7100"},
  };
  std::vector<App> apps;
  for (const Case& c : cases) {
    sandbox_.InstallProgram(ProgramPath("test-service"), dir + c.name, c.owner, c.group, c.mode);
    apps.push_back({c.name, dir + c.name, {}, {{"uid", c.uid}, {"gid", c.uid}}});
  }
  Boot(apps);
  AwaitBooted();
  for (const Case& c : cases) {
    EXPECT_EQ(log_.Count("PROCMGR : Start App=" + c.name + " failed, " + c.line +
                         " not have x permission !!"),
              1U)
        << c.name;
  }
  EXPECT_TRUE(daemon_->Services().empty());
}

}  // namespace
}  // namespace PmTest
