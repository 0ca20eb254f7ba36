// A person's session with pmctl on the example platform.

#include <nlohmann/json.hpp>

#include "base/small_file.h"
#include "tests/support/scenario_test.h"
#include "tools/demo/demo_platform.h"

namespace PmTest {
namespace {

struct Result {
  int status = -1;
  std::string output;
};

class PmCtl : public ScenarioTest {
 protected:
  void SetUp() override {
    Demo::InstallPlatform(sandbox_);
    Start({Demo::kPlatformFile});
    ASSERT_TRUE(Await("EnableWatchDog flag=1"));
    // The operator loads its start-up file once it is ready.
    ASSERT_TRUE(Await("LoadStartCfgInfo finish ret=0x0"));
  }

  Result Run(const std::string& program, const std::vector<std::string>& arguments) {
    Process process(sandbox_, program, arguments, {{}, "pmctl"});
    const auto status = process.WaitExit();
    if (!status.has_value() || !WIFEXITED(*status)) {
      ADD_FAILURE() << program << " has not come to its end: " << process.Output();
      return {};
    }
    return {WEXITSTATUS(*status), process.Output()};
  }
  Result Ask(const std::vector<std::string>& arguments) { return Run(Demo::kPmctl, arguments); }

  // Runs it as a user with one group, `gid`, and no other.
  Result AskAs(uid_t uid, gid_t gid, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--reuid=" + std::to_string(uid), "--regid=" + std::to_string(gid),
                      "--clear-groups", Demo::kPmctl});
    return Run("/usr/bin/setpriv", arguments);
  }

  // What the manager's status says of an application; null if it isn't in there.
  nlohmann::json Look(const std::string& name, const char* key) {
    const Result result = Ask({"status", "--json"});
    EXPECT_EQ(result.status, 0) << result.output;
    const auto status = nlohmann::json::parse(result.output);
    for (const auto& app : status.at("apps")) {
      if (app.at("name") == name) {
        return app.at(key);
      }
    }
    return nullptr;
  }
  bool AwaitState(const std::string& name, const std::string& state) {
    return Eventually([&] { return Look(name, "state") == state; });
  }
};

TEST_F(PmCtl, SessionFromStartToStop) {
  const Result started = Ask({"start", "recorder", "stubborn", "recorder"});
  EXPECT_EQ(started.status, 0) << started.output;
  const auto first = Look("recorder", "pid").get<pid_t>();
  EXPECT_THAT(started.output, HasSubstr("recorder is running, pid " + std::to_string(first)));
  EXPECT_TRUE(Kill(first, 0));

  const Result again = Ask({"start", "recorder"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.output, "recorder is running, pid " + std::to_string(first) + "\n");

  const Result restarted = Ask({"restart", "recorder"});
  EXPECT_EQ(restarted.status, 0) << restarted.output;
  EXPECT_THAT(restarted.output, StartsWith("recorder has been restarted, pid "));
  const auto second = Look("recorder", "pid").get<pid_t>();
  EXPECT_NE(second, first);
  EXPECT_FALSE(Kill(first, 0));
  EXPECT_EQ(Look("recorder", "restarts").at("count"), 1);

  EXPECT_EQ(Ask({"stop", "stubborn"}).output, "stubborn has ended\n");
  EXPECT_EQ(Ask({"stop", "stubborn"}).output, "stubborn has ended\n");
  EXPECT_EQ(Ask({"query", "recorder", "stubborn"}).output, "recorder running\nstubborn gone\n");

  ASSERT_TRUE(Kill(second));
  EXPECT_TRUE(AwaitState("recorder", "failed"));
  EXPECT_EQ(Ask({"query", "recorder"}).status, 1);
  EXPECT_TRUE(daemon_->AwaitReaped());
}

TEST_F(PmCtl, DynamicParametersReachTheProcess) {
  const Result started =
      Ask({"start", "encoder7", "--arg", "--h265", "--env", "QUALITY=low", "--timeout", "60"});
  ASSERT_EQ(started.status, 0) << started.output;
  const std::string proc = "/proc/" + Look("encoder7", "pid").dump();
  std::string text;
  ASSERT_EQ(ProcMgr::ReadSmallFile(proc + "/cmdline", 4096, text), 0);
  EXPECT_THAT(text, HasSubstr(std::string("\0--h265\0", 8)));
  ASSERT_EQ(ProcMgr::ReadSmallFile(proc + "/environ", 65536, text), 0);
  EXPECT_THAT(text, HasSubstr("QUALITY=low"));

  // What it runs without is told.
  const Result again = Ask({"start", "encoder7", "--arg", "--h264", "--env", "QUALITY=high"});
  EXPECT_EQ(again.status, 0);
  EXPECT_THAT(again.output, HasSubstr("encoder7 runs without --arg --h264 --env QUALITY=high: "));
  const Result fixed = Ask({"start", "recorder", "--arg", "--mono"});
  EXPECT_THAT(fixed.output, HasSubstr("recorder runs without --arg --mono: "));
  EXPECT_THAT(started.output, Not(HasSubstr("without")));

  const Result misfit = Ask({"start", "encoder8", "--env", "QUALITY=middling"});
  EXPECT_EQ(misfit.status, 1);
  EXPECT_THAT(misfit.output, HasSubstr("parameters that don't fit its patterns"));
}

// Straight from the manager: no service has to be up for it.
TEST_F(PmCtl, TheManagerTellsItself) {
  ASSERT_EQ(Ask({"start", "recorder"}).status, 0);
  const auto first = Look("recorder", "pid").get<pid_t>();
  ASSERT_TRUE(Kill(first));
  const std::string died = "recorder is failed for ";
  EXPECT_TRUE(Eventually([&] { return Ask({"why", "recorder"}).output.starts_with(died); }));
  EXPECT_THAT(Ask({"why", "recorder"}).output, HasSubstr("who sent the signal"));
  const Result shown = Ask({"show", "recorder"});
  EXPECT_EQ(shown.status, 0) << shown.output;
  EXPECT_THAT(shown.output, HasSubstr("ended        signal 9 "));
  EXPECT_EQ(nlohmann::json::parse(Ask({"show", "recorder", "--json"}).output).at("state"),
            "failed");
  EXPECT_THAT(Ask({"boot"}).output, ContainsRegex("critical chain(.*\n)*.* ready map_service\n"));
  EXPECT_THAT(Ask({"names"}).output,
              AllOf(HasSubstr("camera_service\n"), HasSubstr("untouchable\n")));
  EXPECT_EQ(Ask({"names", "--general"}).output, "recorder\nstubborn\nuntouchable\n");
  EXPECT_THAT(Ask({"top", "--once", "--interval", "0.1", "--sort", "threads"}).output,
              ContainsRegex("^NAME .*\nPROCMGR  *" + std::to_string(daemon_->Pid()) +
                            "  *[0-9.]+(  *[0-9]+){3}\n(.*\n)*camera_service "));
  const std::string page = "/run/sandbox/boot.html";
  const std::string saved = "/run/sandbox/boot.json";
  EXPECT_EQ(Ask({"boot", "--html", page, "--save", saved}).output, "");
  EXPECT_THAT(sandbox_.ReadFile(page), HasSubstr("data-name=\"camera_service\""));
  EXPECT_THAT(Ask({"boot", "--compare", saved}).output, HasSubstr(" ms: +0.0 ms\n"));
  EXPECT_EQ(Ask({"why", "nobody"}).status, 3);
  EXPECT_EQ(
      Ask({"why", "untouchable"}).output,
      "untouchable isn't running: nobody has asked operator for it -> pmctl start untouchable\n");

  const Result failed = Ask({"status", "--failed"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.output, HasSubstr("\nrecorder "));
  EXPECT_THAT(failed.output, Not(HasSubstr("camera_service")));
  EXPECT_THAT(Ask({"status"}).output,
              ContainsRegex("^manager.*\nNAME .*\nrecorder .*\n(.*\n)*iammgr "));

  Process watch(sandbox_, Demo::kPmctl, {"status", "--watch", "--json"}, {{}, "watch"});
  EXPECT_TRUE(Eventually([&] { return watch.Output().ends_with("\n"); }));
  const std::string before = watch.Output();
  ASSERT_EQ(Ask({"start", "recorder"}).status, 0);
  EXPECT_TRUE(Eventually([&] {
    return watch.Output().substr(before.size()).find(R"("running")") != std::string::npos;
  }));
  daemon_->Signal(SIGSTOP);
  ASSERT_TRUE(Eventually([this] { return ReadStat(daemon_->Pid()).state == 'T'; }));
  for (const char* command : {"status", "boot"}) {
    EXPECT_THAT(Ask({command}).output, HasSubstr("the manager doesn't answer"));
  }
  EXPECT_TRUE(watch.WaitExit().has_value());
  EXPECT_THAT(watch.Output(), HasSubstr("the manager doesn't answer"));
  daemon_->Signal(SIGCONT);
  EXPECT_EQ(Ask({"shutdown"}).status, 0);
  EXPECT_EQ(daemon_->WaitExit(), 0);
  const Result gone = Ask({"show", "recorder"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_THAT(gone.output, HasSubstr("the manager isn't running"));
}

TEST_F(PmCtl, RefusalsSayWhatIsWrong) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* text;
  } cases[] = {
      {{"start", "recoder"}, 1, "recoder is unknown: no start-up file that has been loaded"},
      {{"restart", "recoder"}, 1, "recoder has ended at once, or could not be started: unknown"},
      {{"stop", "untouchable"}, 0, "untouchable was not running"},
      {{"stop", "camera_service"}, 1, "is a base service: the manager starts it"},
      {{"restart", "iammgr"}, 1, "(restart: on-forever)"},
      {{"start", "a#b"}, 1, "a#b "},
      {{"query", "recoder"}, 1, "recoder gone"},
      {{"start", "recorder", "--env", "QUALITY"}, 2, "isn't KEY=VALUE"},
      {{"start"}, 2, "NAME is required"},
      {{"begin", "recorder"}, 2, "not expected: "},
      {{}, 2, "Usage:"},
      {{"--socket", "/run/nobody", "load"}, 3, "the operator service isn't up"},
      {{"--manager", "/run/nobody", "status"}, 3, "the manager isn't running"},
      {{"load", "board=large"}, 0, "has been loaded"},
      {{"reload"}, 0, "has been reloaded"},
  };
  for (const auto& c : cases) {
    const Result result = Ask(c.arguments);
    EXPECT_EQ(result.status, c.status) << ::testing::PrintToString(c.arguments) << result.output;
    EXPECT_THAT(result.output, HasSubstr(c.text)) << ::testing::PrintToString(c.arguments);
  }
  ASSERT_EQ(Ask({"start", "untouchable"}).status, 0);
  // It is up before it has closed its ears.
  const auto pid = Look("untouchable", "pid").get<pid_t>();
  ASSERT_TRUE(Eventually([&] { return Ignores(pid, SIGTERM); }));
  const Result kept = Ask({"stop", "untouchable"});
  EXPECT_EQ(kept.status, 1);
  EXPECT_THAT(kept.output, HasSubstr("must not be killed"));
}

TEST_F(PmCtl, BrokenStartupFileIsNamedAndHarmsNothing) {
  ASSERT_EQ(Ask({"start", "recorder"}).status, 0);
  sandbox_.WriteFile("/etc/zur/platform/entries/operator.yaml",
                     "applications: [{appName: broken}]\n");
  const Result failed = Ask({"reload"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.output, HasSubstr("(code 15795205); check the file with pmcheck"));
  EXPECT_EQ(Ask({"query", "recorder"}).output, "recorder running\n");
}

TEST_F(PmCtl, StrangersAreRefused) {
  constexpr uid_t kStranger = 4711;
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"status"}, "you may not ask the manager: only root"},
      {{"start", "recorder"}, "only root and the members of its group may (try sudo"}};
  for (const auto& [arguments, text] : cases) {
    const Result result = AskAs(kStranger, kStranger, arguments);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.output, HasSubstr(text));
  }
  // The credentials count when somebody has opened the socket's mode.
  ASSERT_EQ(chmod(sandbox_.Outside("/run/pm/operator/socket").c_str(), 0666), 0);
  const Result let = AskAs(kStranger, kStranger, {"start", "recorder"});
  EXPECT_EQ(let.status, 3);
  EXPECT_THAT(let.output, HasSubstr("only root and the service's own group may ask"));
  struct stat operatorFolder {};
  ASSERT_EQ(stat(sandbox_.Outside("/run/pm/operator").c_str(), &operatorFolder), 0);
  const Result member = AskAs(kStranger, operatorFolder.st_gid, {"start", "recorder"});
  EXPECT_EQ(member.status, 0) << member.output;
}

}  // namespace
}  // namespace PmTest
