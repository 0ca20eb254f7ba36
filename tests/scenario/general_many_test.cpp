// Many applications at once, and requests that mean harm.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <set>

#include "tests/scenario/general_test.h"

namespace PmTest {
namespace {

using ProcMgr::Message::RequestType;

class GeneralMany : public GeneralTest {};

TEST_F(GeneralMany, HundredsFromTheFramesOfOneAgentLeaveNothing) {
  constexpr std::size_t kCount = 300;
  BootWith({{"app-${[0-9]+}", kService, {}, {}}});
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  std::vector<ProcMgr::Message::StartAppInfo> starts;
  std::vector<ProcMgr::Message::RestartAppInfo> restarts;
  std::vector<std::string> names;
  std::map<std::string, int> running;
  for (std::size_t i = 0; i < kCount; ++i) {
    names.push_back("app-" + std::to_string(i));
    starts.push_back({names.back(), {}, {}});
    restarts.push_back({names.back(), {}, {}});
    running[names.back()] = 0;
  }
  std::map<std::string, pid_t> pids;
  // Expects one report of `state` on each, from both who hear of them.
  const auto expectAll = [&](std::uint32_t state) {
    for (AgentPeer* const peer : {&owner_, &iammgr_}) {
      std::set<std::string> seen;
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto report = peer->NextReport();
        ASSERT_TRUE(report.has_value()) << seen.size();
        EXPECT_EQ(report->state, state) << report->appName;
        EXPECT_TRUE(seen.insert(report->appName).second) << report->appName;
        pids[report->appName] = report->pid;
      }
    }
  };
  // As many as an answer of one frame can hold.
  const auto status = [&](std::size_t begin, std::size_t end) {
    return owner_.Query({names.begin() + static_cast<std::ptrdiff_t>(begin),
                         names.begin() + static_cast<std::ptrdiff_t>(end)});
  };
  ASSERT_TRUE(owner_.StartApps(starts));
  ASSERT_NO_FATAL_FAILURE(expectAll(0));
  EXPECT_EQ(daemon_->Services().size(), kCount + 3);
  std::map<std::string, int> answers = status(0, kCount / 2);
  answers.merge(status(kCount / 2, kCount));
  EXPECT_EQ(answers, running);
  const auto firstPids = pids;
  ASSERT_TRUE(owner_.RestartApps(restarts));
  ASSERT_NO_FATAL_FAILURE(expectAll(1));
  for (const auto& [name, pid] : firstPids) {
    EXPECT_NE(pids[name], pid) << name;
  }
  // Half of them are asked to end, half die.
  std::vector<std::string> asked(names.begin(), names.begin() + kCount / 2);
  ASSERT_TRUE(owner_.TermApps(asked));
  for (std::size_t i = kCount / 2; i < kCount; ++i) {
    ASSERT_EQ(kill(pids[names[i]], SIGKILL), 0);
  }
  for (AgentPeer* const peer : {&owner_, &iammgr_}) {
    std::map<std::string, std::uint32_t> states;
    for (std::size_t i = 0; i < kCount; ++i) {
      const auto report = peer->NextReport();
      ASSERT_TRUE(report.has_value());
      states[report->appName] = report->state;
    }
    EXPECT_EQ(states.size(), kCount);
    for (std::size_t i = 0; i < kCount; ++i) {
      EXPECT_EQ(states[names[i]], i < kCount / 2 ? 3U : 4U) << names[i];
    }
  }
  ASSERT_TRUE(log_.WaitForCount("removed from the list of generalAppMap_", kCount));
  ExpectNothingElse();
  EXPECT_EQ(daemon_->Services().size(), 3U);
  EXPECT_TRUE(daemon_->Zombies().empty());
  EXPECT_EQ(daemon_->Descriptors().size(), descriptors);
  EXPECT_EQ(daemon_->ThreadCount(), threads);
}

TEST_F(GeneralMany, HostileRequestsHurtNobody) {
  BootWith({{"good", kService, {}, {}}});
  // A pattern that isn't one is refused with its file, and never matches.
  sandbox_.WriteFile(kEntryFile, ServiceFile({{"odd-${[}", kService, {}, {}}}));
  EXPECT_EQ(owner_.LoadStartupCfg(), "15795205");
  const std::string body1999 = [] {
    std::string text = "1999#";
    for (int i = 0; i < 1999; ++i) {
      text += "#";
    }
    return text;
  }();
  struct Case {
    RequestType type;
    std::string text;
  };
  const Case cases[] = {
      {RequestType::START_APP, ""},
      {RequestType::START_APP, "####"},
      {RequestType::START_APP, "4294967295#"},
      {RequestType::START_APP, "2000#a#0#0#"},
      {RequestType::START_APP, "99999999999999999999#a#0#0#"},
      {RequestType::START_APP, "-1#a#0#0#"},
      {RequestType::START_APP, "1#good#1025#x#"},
      {RequestType::START_APP, "1#good#4294967295#x#"},
      {RequestType::START_APP, "1#nobody#0#4#"},
      {RequestType::START_APP, "1#nobody#0#1#3#1#x#"},
      {RequestType::START_APP, "1#nobody#0#1#0#18446744073709551615#x#"},
      {RequestType::START_APP, "1#" + std::string(3900, 'n') + "#0#0#"},
      {RequestType::START_APP, "1#%s%n%s%n#0#0#"},
      {RequestType::START_APP, std::string("1#\0x\n#0#0#", 10)},
      {RequestType::START_APP, "1999#a#"},
      {RequestType::RESTART_APP, "1#odd-1#0#0#"},
      {RequestType::RESTART_APP, "1#../../bin/sh#1#-c#0#"},
      {RequestType::TERM_APP, body1999},
      {RequestType::TERM_APP, "1999#"},
      {RequestType::BASESERVICE_STATE_REPORT, "1#"},
      {RequestType::BASESERVICE_STATE_REPORT, "1#4000000000#"},
      {RequestType::APP_EXECUTION_REPORT, "1#name#"},
      {RequestType::QUERY_APP_STATE, std::string("\xff\xff\xff\xff", 4)},
      {RequestType::QUERY_APP_STATE, std::string("\1\0\0\0\xff\xff\xff\x7f", 8) + "x"},
      {RequestType::LOAD_STARTUP_CFG, "1#/x#102399#a#"},
      {RequestType::LOAD_STARTUP_CFG, "#"},
  };
  ASSERT_TRUE(owner_.StartApps({{"good", {}, {}}}));
  pid_t pid = ExpectBoth(owner_, "good 0").pid;
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
  const auto own = owner_.NextReport();
  ASSERT_TRUE(own.has_value());
  EXPECT_EQ(own->state, 1U);
  EXPECT_NE(own->pid, pid);
  EXPECT_EQ(daemon_->Services().size(), 4U);
  EXPECT_TRUE(daemon_->Zombies().empty());
}

}  // namespace
}  // namespace PmTest
