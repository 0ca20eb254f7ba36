// The orderly stop: what was started ends in the reverse order of the boot, whatever it does.

#include "tests/scenario/general_test.h"
#include "tests/support/status_peer.h"

namespace PmTest {
namespace {

class OrderlyStop : public GeneralTest {
 protected:
  void Ask() const { daemon_->Signal(SIGRTMIN + 3); }

  void ExpectEnd() {
    EXPECT_EQ(daemon_->WaitExit(), 0);
    EXPECT_TRUE(log_.WaitFor("PROCMGR : orderly stop end").has_value());
  }

  // The texts behind "orderly stop", without what differs from run to run.
  std::vector<std::string> Steps(std::size_t from) {
    std::vector<std::string> steps;
    for (const std::string& line : log_.Masked(from)) {
      const std::size_t begin = line.find("orderly stop: ");
      if (begin != std::string::npos) {
        steps.push_back(line.substr(begin + 14));
      }
    }
    return steps;
  }

  static std::string Killed(const std::string& name) {
    return "app=" + name + ", pid=# has not ended, so SIGKILL";
  }
};

TEST_F(OrderlyStop, EndsEverythingInTheReverseOrderOfTheBoot) {
  sandbox_.WriteFile(
      kEntryFile,
      ServiceFile({Service("job"), Service("deaf", {"--ignore-term"}, {{"termTimeOut", "200"}})}));
  Boot({Reporting("iammgr"),
        Reporting("owner", {{"dependList", "[iammgr]"},
                            {"startupEntryPath", kEntryFile},
                            {"restart", "on-forever"}}),
        Service("plain", {}, {{"dependList", "[owner]"}, {"restart", "on-forever"}}),
        Service("stubborn", {"--ignore-term"}, {{"termTimeOut", "200"}, {"restart", "on-failure"}}),
        Service("stopped", {}, {{"termTimeOut", "200"}})});
  ASSERT_TRUE(iammgr_.BecomeReady() && owner_.BecomeReady());
  AwaitBooted();
  ASSERT_EQ(owner_.LoadStartupCfg(), "0");
  ASSERT_TRUE(owner_.StartApps({{"job", {}, {}}, {"deaf", {}, {}}}));
  // They are up before they have closed their ears.
  for (const auto& report : {owner_.NextReport(), owner_.NextReport()}) {
    ASSERT_TRUE(report.has_value());
    ASSERT_TRUE(report->appName != "deaf" ||
                Eventually([&] { return Ignores(report->pid, SIGTERM); }));
  }
  ASSERT_TRUE(Eventually([&] { return Ignores(AwaitStarted("stubborn"), SIGTERM); }));
  ASSERT_TRUE(Kill(AwaitStarted("stopped"), SIGSTOP));
  StatusPeer watcher(sandbox_.Outside("/run/process-manager/status.sock"));
  ASSERT_TRUE(watcher.Ask(R"({"watch":true})").is_object());
  const std::size_t before = log_.Lines().size();
  Ask();
  ASSERT_TRUE(Await("orderly stop begin", before));
  EXPECT_TRUE(owner_.StartApps({{"job", {}, {}}}));
  ExpectEnd();
  EXPECT_THAT(Steps(before),
              ::testing::UnorderedElementsAre(
                  "asked general applications to end, count=2", Killed("deaf"),
                  "request type=0 from owner is not taken",
                  "asked base services to end, appList=plain,stubborn,stopped,", Killed("stubborn"),
                  Killed("stopped"), "asked base services to end, appList=owner,",
                  "asked base services to end, appList=iammgr,"));
  const std::vector<std::string> lines = log_.Masked(before);
  EXPECT_EQ(CountLines(lines, "Start baseApp success"), 0U);
  EXPECT_EQ(CountLines(lines, "SetExitStatus"), 7U) << "every end is filed";
  std::map<std::string, std::string> told;
  for (nlohmann::json line = watcher.ReadAnswer(); !line.is_null(); line = watcher.ReadAnswer()) {
    for (const nlohmann::json& app : line.at("apps")) {
      const nlohmann::json& cause = app.at("cause");  // None of one that has come up meanwhile.
      told[app.at("name")] += cause.is_null() ? ""
                                              : app.at("state").get<std::string>() + " " +
                                                    cause.at("what").get<std::string>() + ", ";
    }
  }
  for (const char* name : {"iammgr", "owner", "plain", "stubborn", "stopped", "job", "deaf"}) {
    EXPECT_EQ(told[name], "stopping request, ended request, ") << name;
  }
}

// Whatever the bring-up waits for.
TEST_F(OrderlyStop, EndsABootUnderWay) {
  const std::vector<std::vector<App>> boots = {
      {Service("first"), Reporting("never-serves"), Service("later")},
      {Reporting("iammgr"), Reporting("owner")},
  };
  for (const std::vector<App>& apps : boots) {
    const std::size_t before = log_.Lines().size();
    Boot(apps);
    if (apps.front().name == "iammgr") {
      ASSERT_TRUE(iammgr_.AwaitChannel());
      ASSERT_TRUE(Await("waiting for baseApp=iammgr", before));
    } else {
      ASSERT_TRUE(Await("Start baseApp success appName=never-serves,", before));
    }
    Ask();
    ExpectEnd();
    EXPECT_FALSE(log_.WaitFor("InitBaseApplication end", before, std::chrono::milliseconds(0)));
    daemon_.reset();
  }
}

TEST_F(OrderlyStop, ASecondRequestCutsTheTimeOutsShort) {
  Boot({Service("patient", {"--ignore-term"}, {{"termTimeOut", "3600000"}})});
  AwaitBooted();
  ASSERT_TRUE(Eventually([&] { return Ignores(AwaitStarted("patient"), SIGTERM); }));
  const std::size_t before = log_.Lines().size();
  Ask();
  ASSERT_TRUE(Await("asked base services to end", before));
  Ask();
  ExpectEnd();
  EXPECT_THAT(Steps(before), ::testing::ElementsAre("asked general applications to end, count=0",
                                                    "asked base services to end, appList=patient,",
                                                    Killed("patient")));
}

// Fifty services, each of which depends on the one before, and nine on each that nobody depends on:
// some don't hear of the end, one is stopped, one dies meanwhile.
TEST_F(OrderlyStop, FiveHundredServicesInFiftyLevels) {
  constexpr int kLevels = 50;
  constexpr int kLeaves = 9;
  constexpr int kDeafEvery = 10;
  sandbox_.InstallProgram(ProgramPath("hello_service"), kHelloService);
  std::vector<App> apps;
  for (int level = 0; level < kLevels; ++level) {
    const std::string name = "level" + std::to_string(level);
    App app{name, kHelloService, {}, {{"isReporting", "true"}, {"restart", "on-forever"}}};
    app.keys.emplace_back("envArgv", "{PROC_NAME: " + name + "}");
    if (level > 0) {
      app.keys.emplace_back("dependList", "[level" + std::to_string(level - 1) + "]");
    }
    apps.push_back(app);
    for (int i = 0; i < kLeaves; ++i) {
      const bool isDeaf = i == 0 && level % kDeafEvery == 0;
      const bool isKilled = isDeaf || (level == 7 && i == 1);  // The latter is stopped.
      apps.push_back(
          Service("leaf" + std::to_string(level) + "-" + std::to_string(i),
                  isDeaf ? std::vector<std::string>{"--ignore-term"} : std::vector<std::string>{},
                  {{"dependList", "[" + name + "]"}, {"termTimeOut", isKilled ? "300" : "60000"}}));
    }
  }
  Boot(apps);
  AwaitBooted();
  ASSERT_TRUE(Await("STARTING to RUNNING appName=leaf49-8,"));
  const pid_t stopped = AwaitStarted("leaf7-1");
  const pid_t dying = AwaitStarted("level3");
  ASSERT_TRUE(stopped > 0 && dying > 0);
  ASSERT_TRUE(Kill(stopped, SIGSTOP));
  const std::size_t before = log_.Lines().size();
  Ask();
  ASSERT_TRUE(Await("asked base services to end, appList=level40,", before));
  EXPECT_TRUE(Kill(dying));
  ExpectEnd();
  std::map<std::string, std::size_t> roundOf;
  std::size_t round = 0;
  for (const std::string& step : Steps(before)) {
    const std::string names = step.substr(step.find('=') + 1);
    for (std::size_t begin = 0, end = 0; step.starts_with("asked base services") &&
                                         (end = names.find(',', begin)) != std::string::npos;
         begin = end + 1) {
      roundOf[names.substr(begin, end - begin)] = round;
    }
    ++round;
  }
  EXPECT_EQ(roundOf.size(), std::size_t{kLevels * (kLeaves + 1)} - 1) << "all but the dead one";
  EXPECT_LT(roundOf["leaf0-0"], roundOf["level49"]);
  for (int level = 0; level < kLevels - 1; ++level) {
    if (level != 2 && level != 3) {
      const std::string name = "level" + std::to_string(level);
      EXPECT_LT(roundOf["level" + std::to_string(level + 1)], roundOf[name]) << name;
    }
  }
  const std::vector<std::string> lines = log_.Masked(before);
  EXPECT_EQ(CountLines(lines, "SetExitStatus"), std::size_t{kLevels * (kLeaves + 1)});
  EXPECT_EQ(CountLines(lines, "has not ended, so SIGKILL"), std::size_t{kLevels / kDeafEvery + 1});
  EXPECT_EQ(CountLines(lines, "Start baseApp success"), 0U);
  EXPECT_EQ(CountLines(lines, "is not taken"), 0U) << "a heart beat is no request";
}

}  // namespace
}  // namespace PmTest
