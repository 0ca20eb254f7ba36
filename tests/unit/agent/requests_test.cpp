// What the requests of a service look like on the wire, and what never gets there.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "agent/process_manager_agent.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Agent;
using ProcMgr::Result;
using ProcMgr::ServiceState;
using Strings = std::vector<std::string>;

using AgentRequests = AgentTest;

TEST_F(AgentRequests, ByteByByte) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  const struct {
    const char* what;
    std::function<Result()> request;
    std::uint32_t type;
    std::string body;
  } cases[] = {
      {"start",
       [&] {
         return agent->StartApps({{"a", {"x", "y"}, {{1, {"v"}}}}});
       },
       0, "1#a#2#x#y#1#1#1#v#"},
      {"start two, the shorter first",
       [&] {
         return agent->StartApps({{"long", {}, {}}, {"b", {}, {}}});
       },
       0, "2#b#0#0#long#0#0#"},
      {"restart",
       [&] {
         return agent->RestartApps({{"a", {}, {{0, {"/bin/a"}}, {2, {"K=1", "L=2"}}}}});
       },
       1, "1#a#0#2#0#1#/bin/a#2#2#K=1#L=2#"},
      {"terminate",
       [&] {
         return agent->TermApps({"bb", "a"});
       },
       2, "2#a#bb#"},
      {"ready", [&] { return agent->ReportState(ServiceState::kReady); }, 3, "1#2#"},
      {"up", [&] { return agent->ReportState(ServiceState::kUp); }, 3, "1#0#"},
      {"report all", [&] { return agent->ReportState(ServiceState::kReportAll); }, 3, "1#1#"},
      {"going down", [&] { return agent->ReportState(ServiceState::kGoingDown); }, 3, "1#3#"},
      {"execution",
       [&] {
         return agent->ReportExecution({"a", -1, 34, 1});
       },
       5, "1#a#4294967295#34#1#"},
      {"query",
       [&] {
         return agent->RequestAppStatus({"bb", "a", "bb"});
       },
       9, Word(2) + Word(1) + "a" + Word(2) + "bb"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.request(), Result::kOk);
    EXPECT_EQ(manager.ReceiveBody(c.type), c.body);
  }
}

TEST_F(AgentRequests, LongListsTravelInSeveralFrames) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  ASSERT_EQ(agent->TermApps({std::string(1999, 'c'), "a", std::string(1954, 'b')}), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(2), "2#a#" + std::string(1954, 'b') + "#");
  EXPECT_EQ(manager.ReceiveBody(2), "1#" + std::string(1999, 'c') + "#");
}

// The manager reads no dynamic block from it, so a second record of a frame would be misread.
TEST_F(AgentRequests, AccessManagerSendsOneRecordAFrame) {
  const auto agent = MakeAgent({}, "iammgr");
  const FakeManager manager = Connect(*agent);
  ASSERT_EQ(agent->StartApps({{"bb", {"x"}, {}}, {"a", {}, {}}}), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(0), "1#bb#1#x#0#");
  EXPECT_EQ(manager.ReceiveBody(0), "1#a#0#0#");
  EXPECT_EQ(agent->RestartApps({{"a", {}, {{1, {"v"}}}}}), Result::kInvalidArgument);
}

TEST_F(AgentRequests, RefusesWhatTheManagerWouldMisread) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  const std::string zero("a\0b", 3);
  const Strings many(1025, "x");
  Agent::StatusMap status;
  const struct {
    const char* what;
    Result got;
    Result expected;
  } cases[] = {
      {"no start", agent->StartApps({}), Result::kInvalidArgument},
      {"no name", agent->StartApps({{"", {}, {}}}), Result::kInvalidArgument},
      {"separator in a name", agent->StartApps({{"a#b", {}, {}}}), Result::kInvalidArgument},
      {"separator in an argument", agent->StartApps({{"a", {"#"}, {}}}), Result::kInvalidArgument},
      {"zero byte", agent->StartApps({{"a", {zero}, {}}}), Result::kInvalidArgument},
      {"separator in a value", agent->StartApps({{"a", {}, {{2, {"#"}}}}}),
       Result::kInvalidArgument},
      {"key 3", agent->RestartApps({{"a", {}, {{3, {"x"}}}}}), Result::kInvalidArgument},
      {"key -1", agent->RestartApps({{"a", {}, {{-1, {"x"}}}}}), Result::kInvalidArgument},
      {"1025 arguments", agent->StartApps({{"a", many, {}}}), Result::kTooLarge},
      {"1025 values", agent->StartApps({{"a", {}, {{2, many}}}}), Result::kTooLarge},
      // Its text is one byte more than a window takes; the good record must not go either.
      {"3956 bytes", agent->TermApps({"a", std::string(3955, 'b')}), Result::kTooLarge},
      {"3960 bytes", agent->TermApps({"a", std::string(3959, 'b')}), Result::kTooLarge},
      {"no termination", agent->TermApps({}), Result::kInvalidArgument},
      {"state 4", agent->ReportState(static_cast<ServiceState>(4)), Result::kInvalidArgument},
      {"execution without a name", agent->ReportExecution({"", 1, 2, 0}), Result::kInvalidArgument},
      {"no query", agent->QueryAppStatus({}, kPatience, status), Result::kInvalidArgument},
      {"long name in a query", agent->RequestAppStatus({std::string(3953, 'a')}),
       Result::kTooLarge},
      {"separator in match data", agent->LoadStartupCfg({{{"k", "v#"}}, ""}, kPatience),
       Result::kInvalidArgument},
      {"long match data", agent->LoadStartupCfg({{{"k", std::string(4000, 'v')}}, ""}, kPatience),
       Result::kTooLarge},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.got, c.expected) << c.what << ": " << ToText(c.got);
  }
  // Nothing of all that has been sent.
  ASSERT_EQ(agent->TermApps({std::string(3954, 'b')}), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(2), "1#" + std::string(3954, 'b') + "#");
}

TEST_F(AgentRequests, HeartMessagesCountFromOneOnEachChannel) {
  const auto agent = MakeAgent();
  const auto next = [](const FakeManager& manager) {
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const std::string body = manager.ReceiveBody(8);
    std::uint64_t words[2] = {};
    EXPECT_EQ(body.size(), sizeof(words));
    std::memcpy(words, body.data(), std::min(body.size(), sizeof(words)));
    const auto ms = [](auto t) {
      return std::chrono::duration_cast<Agent::Milliseconds>(t).count();
    };
    EXPECT_LE(words[1], static_cast<std::uint64_t>(ms(before)));
    EXPECT_GT(words[1] + 60'000, static_cast<std::uint64_t>(ms(before)));
    return words[0];
  };
  EXPECT_EQ(agent->SendHeartMsg(), Result::kNoChannel);
  for (int channel = 0; channel < 2; ++channel) {
    const FakeManager manager = Connect(*agent);
    for (std::uint64_t index = 1; index <= 3; ++index) {
      ASSERT_EQ(agent->SendHeartMsg(), Result::kOk);
      EXPECT_EQ(next(manager), index);
    }
    if (channel == 0) {
      const FakeManager second(sandbox_, "svc");
      EXPECT_TRUE(manager.Peer().AwaitClosed());
    }
  }
}

// A manager that is stopped, or never reads, costs a sender a bounded time and gets all that was
// accepted.
TEST_F(AgentRequests, AManagerThatDoesNotReadMakesSendersBusy) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  std::uint32_t sent = 0;
  Result result = agent->SendHeartMsg();
  for (; result == Result::kOk && sent < 100'000; result = agent->SendHeartMsg()) {
    ++sent;
  }
  EXPECT_EQ(result, Result::kBusy);
  EXPECT_EQ(agent->TermApps({"a"}), Result::kBusy);
  for (std::uint32_t index = 1; index <= sent; ++index) {
    ASSERT_EQ(manager.ReceiveBody(8).substr(0, 4), Word(index));
  }
  // What found no room has not been counted.
  ASSERT_EQ(agent->SendHeartMsg(), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(8).substr(0, 4), Word(sent + 1));
}

}  // namespace
}  // namespace PmTest
