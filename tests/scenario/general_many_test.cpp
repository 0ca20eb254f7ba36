// Many applications at once, and requests that mean harm.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <map>

#include "tests/scenario/general_test.h"

namespace PmTest {
namespace {

using ProcMgr::Message::RequestType;

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
      ASSERT_EQ(kill(pids_[*name], SIGKILL), 0);
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
  EXPECT_TRUE(daemon_->Zombies().empty());
  EXPECT_EQ(daemon_->Descriptors().size(), descriptors);
  EXPECT_EQ(daemon_->ThreadCount(), threads);
}

TEST_F(GeneralMany, HostileRequestsHurtNobody) {
  BootWith({Service("good")});
  // A pattern that isn't one is refused with its file, and never matches.
  sandbox_.WriteFile(kEntryFile, ServiceFile({Service("odd-${[}")}));
  EXPECT_EQ(owner_.LoadStartupCfg(), "15795205");
  struct Case {
    RequestType type;
    std::string text;
  };
  const Case cases[] = {
      {RequestType::START_APP, ""},
      {RequestType::START_APP, "4294967295#"},
      {RequestType::START_APP, "2000#a#0#0#"},
      {RequestType::START_APP, "1#good#1025#x#"},
      {RequestType::START_APP, "1#nobody#0#1#3#1#x#"},
      {RequestType::START_APP, "1#nobody#0#1#0#18446744073709551615#x#"},
      {RequestType::START_APP, "1#" + std::string(3900, 'n') + "#0#0#"},
      {RequestType::START_APP, "1#%s%n%s%n#0#0#"},
      {RequestType::START_APP, std::string("1#\0x\n#0#0#", 10)},
      {RequestType::RESTART_APP, "1#odd-1#0#0#"},
      {RequestType::RESTART_APP, "1#../../bin/sh#1#-c#0#"},
      {RequestType::TERM_APP, "1999#" + std::string(1999, '#')},
      {RequestType::BASESERVICE_STATE_REPORT, "1#4000000000#"},
      {RequestType::APP_EXECUTION_REPORT, "1#name#"},
      {RequestType::QUERY_APP_STATE, std::string("\xff\xff\xff\xff", 4)},
      {RequestType::QUERY_APP_STATE, std::string("\1\0\0\0\xff\xff\xff\x7f", 8) + "x"},
      {RequestType::LOAD_STARTUP_CFG, "1#/x#102399#a#"},
  };
  ASSERT_TRUE(owner_.StartApps({{"good", {}, {}}}));
  const pid_t pid = ExpectBoth(owner_, "good 0").pid;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    ASSERT_TRUE(second_.Send(TextFrame(c.type, c.text)));
    // The other one's application is still what it was, and can be asked for.
    EXPECT_EQ(owner_.Query({"good"}), (std::map<std::string, int>{{"good", 0}}));
  }
  // All of it has been dealt with once this answer is there.
  ASSERT_TRUE(second_.TermApps({"the-last-of-all"}));
  for (;;) {
    const auto report = second_.NextReport();
    ASSERT_TRUE(report.has_value());
    if (report->appName == "the-last-of-all") {
      break;
    }
    EXPECT_NE(report->state, 1U) << report->appName;
  }
  EXPECT_TRUE(daemon_->IsRunning());
  EXPECT_EQ(owner_.PendingReports(), 0U);
  EXPECT_EQ(ReadStat(pid).parent, daemon_->Pid());
  ASSERT_TRUE(owner_.RestartApps({{"good", {}, {}}}));
  EXPECT_EQ(owner_.NextReports(1), std::vector<std::string>{"good 1"});
  EXPECT_EQ(daemon_->Services().size(), 4U);
  EXPECT_TRUE(daemon_->Zombies().empty());
}

}  // namespace
}  // namespace PmTest
