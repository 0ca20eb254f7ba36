// What agents ask for general applications, one or a thousand, in good faith or not, and what they
// are told.
#include <sched.h>
#include <sys/resource.h>

#include <set>

#include "tests/scenario/general_test.h"

namespace PmTest {
namespace {

class GeneralRequests : public GeneralTest {
 protected:
  // Ignores SIGTERM once the file of its mark is there.
  static App Stubborn(const std::string& name, const std::string& isForceTerm) {
    return Service(name, {"--ignore-term", "--mark", Mark(name)},
                   {{"termTimeOut", "100"}, {"isForceTerm", isForceTerm}});
  }
};

// What the reports of the model's walk don't tell: processes and groups.
TEST_F(GeneralRequests, EveryOutcomeOfAPlainApplication) {
  BootWith({Service("steady", {}, {{"gid", "77"}}), Service("never")});
  ASSERT_TRUE(owner_.StartApps({{"steady", {}, {}}}));
  const auto started = ExpectBoth(owner_, "steady 0");
  EXPECT_EQ(started.gid, 77U);
  EXPECT_EQ(ReadStat(started.pid).parent, daemon_->Pid());
  ASSERT_TRUE(second_.StartApps({{"steady", {}, {}}}));
  EXPECT_EQ(ExpectBoth(second_, "steady 0").pid, started.pid);
  ASSERT_TRUE(second_.RestartApps({{"steady", {}, {}}}));
  const pid_t restarted = ExpectBoth(owner_, "steady 1").pid;
  EXPECT_NE(restarted, started.pid);
  EXPECT_EQ(ReadStat(started.pid).pid, 0);
  ASSERT_TRUE(Kill(restarted));
  EXPECT_EQ(ExpectBoth(owner_, "steady 4").pid, restarted);
  ASSERT_TRUE(owner_.RestartApps({{"steady", {}, {}}}));
  const pid_t third = ExpectBoth(owner_, "steady 1").pid;
  ASSERT_TRUE(second_.TermApps({"steady"}));
  EXPECT_EQ(ExpectBoth(owner_, "steady 3").pid, third);
  // Nothing is known of these two.
  for (const char* const name : {"never", "nobody"}) {
    ASSERT_TRUE(owner_.TermApps({name}));
    const auto report = ExpectBoth(owner_, std::string(name) + " 3");
    EXPECT_EQ(report.pid, 0);
    EXPECT_EQ(report.gid, 0U);
  }
  ASSERT_TRUE(owner_.RestartApps({{"nobody", {}, {}}}));
  EXPECT_EQ(ExpectBoth(owner_, "nobody 4").pid, 0);
  ExpectNothingElse();
  EXPECT_EQ(daemon_->Services().size(), 3U);
}

template <int niceness>
void BeginWithNiceness() {
  (void)setpriority(PRIO_PROCESS, 0, niceness);
}

struct Niceness {
  const char* name;
  int given;
  int ofThreadsThatStart;
  void (*give)();
};

class GivenNiceness : public GeneralTest, public ::testing::WithParamInterface<Niceness> {};

// A thread that starts others runs ahead of them, unless whoever started the manager wants
// something else; applications are to find what was given.
TEST_P(GivenNiceness, IsWhatAllApplicationsFind) {
  beforeDaemon_ = GetParam().give;
  ASSERT_NO_FATAL_FAILURE(BootWith({Service("general")}));
  ASSERT_TRUE(owner_.StartApps({{"general", {}, {}}}));
  ExpectBoth(owner_, "general 0");
  ASSERT_TRUE(owner_.RestartApps({{"general", {}, {}}}));
  ExpectBoth(owner_, "general 1");
  const std::vector<pid_t> services = daemon_->Services();
  EXPECT_EQ(services.size(), 4U);
  for (const pid_t service : services) {
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(service)), GetParam().given);
    EXPECT_EQ(sched_getscheduler(service), SCHED_OTHER);
  }
  std::multiset<int> ofThreads;
  for (const pid_t thread : Threads(daemon_->Pid())) {
    ofThreads.insert(getpriority(PRIO_PROCESS, static_cast<id_t>(thread)));
  }
  // The boot's, the check thread, and the one that has taken the first request.
  EXPECT_GE(ofThreads.count(GetParam().ofThreadsThatStart), 3U);
  EXPECT_GE(ofThreads.count(GetParam().given), 3U);
}

INSTANTIATE_TEST_SUITE_P(All, GivenNiceness,
                         ::testing::Values(Niceness{"Usual", 0, -10, &BeginWithNiceness<0>},
                                           Niceness{"Behind", 3, 3, &BeginWithNiceness<3>},
                                           Niceness{"Ahead", -3, -3, &BeginWithNiceness<-3>}),
                         [](const auto& each) { return each.param.name; });

TEST_F(GeneralRequests, UnknownNameInAStartEndsTheWholeRequest) {
  BootWith({Service("running"), Service("started"), Service("left-out-at-the-end")});
  ASSERT_TRUE(owner_.StartApps({{"running", {}, {}}}));
  ExpectBoth(owner_, "running 0");
  // They go out in the order of their length. The answer that "running" has got is dropped, the
  // start of "started" is reported when it is up, and the last one isn't tried.
  ASSERT_TRUE(owner_.StartApps({{"running", {}, {}},
                                {"started", {}, {}},
                                {"unknown-name", {}, {}},
                                {"left-out-at-the-end", {}, {}}}));
  ExpectBoth(owner_, "started 0");
  ExpectNothingElse();
  EXPECT_TRUE(log_.WaitForCount("PROCMGR : StartApp: appName=unknown-name is null", 1));
  EXPECT_THAT(owner_.Query({"left-out-at-the-end", "running", "started"}),
              ElementsAre(Pair("left-out-at-the-end", 1), Pair("running", 0), Pair("started", 0)));
}

TEST_F(GeneralRequests, StartThatFailsAndEndsOfTheirOwn) {
  BootWith({{"missing", "/opt/test/missing", {}, {}},
            Service("eio", {"--exit-code", "125"}),
            Service("failing", {"--exit-code", "3"})});
  ASSERT_TRUE(owner_.StartApps({{"missing", {}, {}}}));
  EXPECT_EQ(ExpectBoth(owner_, "missing 4").eioFlag, 0U);
  ASSERT_TRUE(owner_.RestartApps({{"missing", {}, {}}}));
  ExpectBoth(owner_, "missing 4");
  for (const auto& [name, eioFlag] : {std::pair{"eio", 1U}, std::pair{"failing", 0U}}) {
    ASSERT_TRUE(owner_.StartApps({{name, {}, {}}}));
    // Whether a check pass sees it alive before its end is a matter of luck.
    for (AgentPeer* const peer : {&owner_, &iammgr_}) {
      auto report = peer->NextReport();
      if (report.has_value() && report->state == 0) {
        report = peer->NextReport();
      }
      ASSERT_TRUE(report.has_value());
      EXPECT_EQ(report->appName, name);
      EXPECT_EQ(report->state, 4U) << name;
      EXPECT_EQ(report->eioFlag, eioFlag) << name;
    }
  }
  ExpectNothingElse();
}

TEST_F(GeneralRequests, ForceDecidesAboutOneThatIgnoresItsEnd) {
  BootWith({Stubborn("forced", "true"), Stubborn("spared", "false")});
  ASSERT_TRUE(owner_.StartApps({{"forced", {}, {}}}));
  AwaitMark("forced", ExpectBoth(owner_, "forced 0").pid);
  ASSERT_TRUE(owner_.TermApps({"forced"}));
  ExpectBoth(owner_, "forced 3");
  // Spared twice: it keeps running, and a restart, which always kills, changes nothing about that.
  ASSERT_TRUE(owner_.StartApps({{"spared", {}, {}}}));
  pid_t pid = ExpectBoth(owner_, "spared 0").pid;
  for (int round = 0; round < 2; ++round) {
    AwaitMark("spared", pid);
    ASSERT_TRUE(owner_.TermApps({"spared"}));
    EXPECT_EQ(ExpectBoth(owner_, "spared 2").pid, pid);
    EXPECT_THAT(owner_.Query({"spared"}), ElementsAre(Pair("spared", 0)));
    ASSERT_TRUE(owner_.RestartApps({{"spared", {}, {}}}));
    const pid_t next = ExpectBoth(owner_, "spared 1").pid;
    EXPECT_NE(next, pid);
    pid = next;
  }
  ExpectNothingElse();
}

TEST_F(GeneralRequests, QueryTellsRunningStoppedAndGone) {
  BootWith({Service("app"), Service("never")});
  ASSERT_TRUE(owner_.StartApps({{"app", {}, {}}}));
  const pid_t pid = ExpectBoth(owner_, "app 0").pid;
  const auto status = [&] { return second_.Query({"app", "never", "app"}); };
  EXPECT_THAT(status(), ElementsAre(Pair("app", 0), Pair("never", 1)));
  ASSERT_TRUE(Kill(pid, SIGSTOP));
  ASSERT_TRUE(Eventually([&] { return ReadStat(pid).state == 'T'; }));
  EXPECT_THAT(status(), ElementsAre(Pair("app", 2), Pair("never", 1)));
  ASSERT_TRUE(Kill(pid));
  EXPECT_EQ(ExpectBoth(owner_, "app 4").pid, pid);
  ASSERT_TRUE(Await("PROCMGR : Process app removed from the list of generalAppMap_"));
  EXPECT_THAT(status(), ElementsAre(Pair("app", 1), Pair("never", 1)));
}

TEST_F(GeneralRequests, LoadSelectsByMatchDataAndAFailedOneLosesNothing) {
  BootWith({Service("plain"), Service("left", {}, {{"match", "{board: left}"}}),
            Service("right", {}, {{"match", "{board: right}"}})});
  const auto known = [&](const char* name) {
    EXPECT_TRUE(owner_.RestartApps({{name, {}, {}}}));
    const auto report = owner_.NextReport();
    return report.has_value() && report->appName == name && report->state == 1;
  };
  EXPECT_TRUE(known("plain"));
  EXPECT_FALSE(known("left"));
  EXPECT_EQ(owner_.LoadStartupCfg({{"board", "left"}, {"further", "x"}}), "0");
  EXPECT_TRUE(known("left"));
  EXPECT_FALSE(known("right"));
  // The service's own file counts, whatever the frame names; this one has none.
  EXPECT_EQ(second_.LoadStartupCfg(), "15795205");
  sandbox_.WriteFile(kEntryFile, "applications: 7\n");
  EXPECT_EQ(owner_.LoadStartupCfg(), "15795205");
  EXPECT_EQ(owner_.LoadStartupCfg({}, true), "15795205");
  EXPECT_TRUE(known("left"));
  for (const char* const kind : {"LOAD", "RELOAD"}) {
    EXPECT_TRUE(Await(std::string("PM revice ") + kind +
                      "_STARTUP_CFG msg load file=/the/manager/knows/better"))
        << "the line tells what the frame asks for";
  }
}

// The marker of all reserved cores stands for them at a restart too, whether it was there from the
// beginning or came back with the reload.
TEST_F(GeneralRequests, ReloadCountsFromTheNextStart) {
  const auto app = [&](const std::string& report) {
    return Service("app", {"--report", report}, {{"coreAffinity", "[255]"}});
  };
  BootWith({app("/run/sandbox/old")});
  ASSERT_TRUE(owner_.RestartApps({{"app", {}, {}}}));
  const pid_t pid = ExpectBoth(owner_, "app 1").pid;
  sandbox_.WriteFile(kEntryFile, ServiceFile({app("/run/sandbox/new")}));
  EXPECT_EQ(owner_.LoadStartupCfg({}, true), "0");
  EXPECT_THAT(owner_.Query({"app"}), ElementsAre(Pair("app", 0)));
  EXPECT_EQ(ReadStat(pid).pid, pid);
  ASSERT_TRUE(owner_.RestartApps({{"app", {}, {}}}));
  const pid_t next = ExpectBoth(owner_, "app 1").pid;
  EXPECT_EQ(AwaitReport(sandbox_, "/run/sandbox/new").Pid(), next);
}

TEST_F(GeneralRequests, DynamicParametersAreCheckedAgainstTheirPatterns) {
  BootWith({{"worker-${[0-9]+}",
             "${/opt/test/.*}",
             {"${.*}"},
             {{"envArgv", "{MODE: '${fast|slow}', FIXED: one}"}}}});
  const std::string path = kService;
  struct Case {
    const char* what;
    ProcMgr::Message::DynamicPara para;
  };
  const Case refused[] = {
      {"no path", {{2, {"MODE=fast"}}}},
      {"a path outside", {{0, {"/bin/true"}}}},
      {"an unknown mode", {{0, {path}}, {2, {"MODE=lazy"}}}},
      {"another fixed value", {{0, {path}}, {2, {"FIXED=two"}}}},
  };
  for (const Case& c : refused) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(owner_.StartApps({{"worker-1", {}, c.para}}));
    ExpectBoth(owner_, "worker-1 4");
    ASSERT_TRUE(second_.RestartApps({{"worker-1", {}, c.para}}));
    ExpectBoth(second_, "worker-1 4");
  }
  // Each start of such a name belongs to the one who asks.
  const std::string report = "/run/sandbox/worker";
  pid_t previous = 0;
  std::size_t removed = 0;
  for (AgentPeer* const peer : {&owner_, &second_}) {
    ASSERT_TRUE(peer->StartApps(
        {{"worker-2", {"--report", report}, {{0, {path}}, {2, {"MODE=slow", "OTHER=x"}}}}}));
    const pid_t pid = ExpectBoth(*peer, "worker-2 0").pid;
    const ServiceReport said = AwaitReport(sandbox_, report, previous);
    EXPECT_EQ(said.Pid(), pid);
    previous = pid;
    EXPECT_EQ(said.Get("env.MODE"), "slow");
    EXPECT_EQ(said.Get("env.FIXED"), "one");
    EXPECT_FALSE(said.Has("env.OTHER"));
    ASSERT_TRUE(iammgr_.TermApps({"worker-2"}));
    ExpectBoth(*peer, "worker-2 3");
    // Up to then a start would go on with the record that has ended, and its owner.
    ASSERT_TRUE(
        log_.WaitForCount("Process worker-2 removed from the list of generalAppMap_", ++removed));
  }
}

constexpr std::size_t kCount = 1000;

class GeneralMany : public GeneralTest {
 protected:
  // Names every application and boots.
  void BootThousand() {
    for (std::size_t i = 0; i < kCount; ++i) {
      names_.push_back("app-" + std::to_string(i));
    }
    BootWith({Service("app-${[0-9]+}")});
  }

  template <typename Info>
  std::vector<Info> RequestOfAll() const {
    std::vector<Info> list;
    for (const std::string& name : names_) {
      list.push_back({name, {}, {}});
    }
    return list;
  }

  // One half is asked to end, the other dies.
  void EndAll() {
    const auto half = names_.begin() + kCount / 2;
    ASSERT_TRUE(owner_.TermApps({names_.begin(), half}));
    for (auto name = half; name != names_.end(); ++name) {
      ASSERT_TRUE(Kill(pids_[*name]));
    }
    ASSERT_NO_FATAL_FAILURE(
        ExpectOneReportOnEach([](std::size_t index) { return index < kCount / 2 ? 3U : 4U; }));
    ASSERT_TRUE(log_.WaitForCount("removed from the list of generalAppMap_", kCount));
  }

  // From both who hear of them; `stateOf` an application's index is the state that it must tell.
  template <typename StateOf>
  void ExpectOneReportOnEach(StateOf stateOf) {
    for (AgentPeer* const peer : {&owner_, &iammgr_}) {
      std::map<std::string, std::uint32_t> states;
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto report = peer->NextReport();
        ASSERT_TRUE(report.has_value()) << peer->Name() << " got " << i;
        EXPECT_TRUE(states.emplace(report->appName, report->state).second) << report->appName;
        pids_[report->appName] = report->pid;
      }
      for (std::size_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(states[names_[i]], stateOf(i)) << names_[i];
      }
    }
  }

  // How many of them are said to run.
  std::size_t CountRunning() {
    constexpr std::size_t kInAnAnswer = 100;
    std::size_t running = 0;
    for (auto begin = names_.begin(); begin != names_.end(); begin += kInAnAnswer) {
      for (const auto& [name, state] : owner_.Query({begin, begin + kInAnAnswer})) {
        running += state == 0 ? 1U : 0U;
      }
    }
    return running;
  }

  std::vector<std::string> names_;
  std::map<std::string, pid_t> pids_;
};

TEST_F(GeneralMany, ThousandFromTheFramesOfOneAgentLeaveNothing) {
  BootThousand();
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  ASSERT_TRUE(owner_.StartApps(RequestOfAll<ProcMgr::Message::StartAppInfo>()));
  ASSERT_NO_FATAL_FAILURE(ExpectOneReportOnEach([](std::size_t) { return 0U; }));
  EXPECT_EQ(daemon_->Services().size(), kCount + 3);
  EXPECT_EQ(CountRunning(), kCount);
  const auto firstPids = pids_;
  ASSERT_TRUE(owner_.RestartApps(RequestOfAll<ProcMgr::Message::RestartAppInfo>()));
  ASSERT_NO_FATAL_FAILURE(ExpectOneReportOnEach([](std::size_t) { return 1U; }));
  for (const auto& [name, pid] : firstPids) {
    EXPECT_NE(pids_[name], pid) << name;
  }
  ASSERT_NO_FATAL_FAILURE(EndAll());
  ExpectNothingElse();
  EXPECT_EQ(CountRunning(), 0U);
  EXPECT_EQ(daemon_->Services().size(), 3U);
  EXPECT_TRUE(daemon_->AwaitReaped());
  EXPECT_EQ(daemon_->Descriptors().size(), descriptors);
  EXPECT_TRUE(Eventually([&] { return daemon_->ThreadCount() <= threads; }));
}

}  // namespace
}  // namespace PmTest
