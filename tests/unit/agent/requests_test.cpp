// What the requests of a service look like on the wire, and what never gets there.
#include <gtest/gtest.h>

#include <chrono>
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
  const std::string c1999(1999, 'c');
  const std::string b1954(1954, 'b');
  const struct {
    Result result;
    std::uint32_t type;
    std::string body;
  } cases[] = {
      {agent->StartApps({{"a", {"x", "y"}, {{1, {"v"}}}}}), 0, "1#a#2#x#y#1#1#1#v#"},
      // The shorter first.
      {agent->StartApps({{"long", {}, {}}, {"b", {}, {}}}), 0, "2#b#0#0#long#0#0#"},
      {agent->RestartApps({{"a", {}, {{0, {"/bin/a"}}, {2, {"K=1", "L=2"}}}}}), 1,
       "1#a#0#2#0#1#/bin/a#2#2#K=1#L=2#"},
      {agent->ReportState(ServiceState::kReady), 3, "1#2#"},
      {agent->ReportState(ServiceState::kUp), 3, "1#0#"},
      {agent->ReportState(ServiceState::kReportAll), 3, "1#1#"},
      {agent->ReportState(ServiceState::kGoingDown), 3, "1#3#"},
      {agent->ReportExecution({"a", -1, 34, 1}), 5, "1#a#4294967295#34#1#"},
      {agent->RequestAppStatus({"bb", "a", "bb"}), 9, Word(2) + Word(1) + "a" + Word(2) + "bb"},
      // A long list travels in several frames.
      {agent->TermApps({c1999, "a", b1954}), 2, "2#a#" + b1954 + "#"},
      {Result::kOk, 2, "1#" + c1999 + "#"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.result, Result::kOk) << c.body;
    EXPECT_EQ(manager.ReceiveBody(c.type), c.body);
  }
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
  const Strings many(1025, "x");
  const ProcMgr::Message::StartupCfgInfo longData{{{"k", std::string(4000, 'v')}}, ""};
  Agent::StatusMap status;
  EXPECT_EQ(agent->StartApps({}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"", {}, {}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"a#b", {}, {}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"a", {"#"}, {}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"a", {std::string("a\0b", 3)}, {}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"a", {}, {{2, {"#"}}}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->RestartApps({{"a", {}, {{3, {"x"}}}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->RestartApps({{"a", {}, {{-1, {"x"}}}}}), Result::kInvalidArgument);
  EXPECT_EQ(agent->StartApps({{"a", many, {}}}), Result::kTooLarge);
  EXPECT_EQ(agent->StartApps({{"a", {}, {{2, many}}}}), Result::kTooLarge);
  // Its text is one byte more than a window takes; the good record must not go either.
  EXPECT_EQ(agent->TermApps({"a", std::string(3955, 'b')}), Result::kTooLarge);
  EXPECT_EQ(agent->TermApps({}), Result::kInvalidArgument);
  EXPECT_EQ(agent->ReportState(static_cast<ServiceState>(4)), Result::kInvalidArgument);
  EXPECT_EQ(agent->ReportExecution({"", 1, 2, 0}), Result::kInvalidArgument);
  EXPECT_EQ(agent->QueryAppStatus({}, kPatience, status), Result::kInvalidArgument);
  EXPECT_EQ(agent->RequestAppStatus({std::string(3953, 'a')}), Result::kTooLarge);
  EXPECT_EQ(agent->LoadStartupCfg({{{"k", "v#"}}, ""}, kPatience), Result::kInvalidArgument);
  EXPECT_EQ(agent->LoadStartupCfg(longData, kPatience), Result::kTooLarge);
  // Nothing of all that has been sent.
  ASSERT_EQ(agent->TermApps({std::string(3954, 'b')}), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(2), "1#" + std::string(3954, 'b') + "#");
}

TEST_F(AgentRequests, HeartMessagesCountFromOneOnEachChannel) {
  const auto agent = MakeAgent();
  EXPECT_EQ(agent->SendHeartMsg(), Result::kNoChannel);
  for (int channel = 0; channel < 2; ++channel) {
    const FakeManager manager = Connect(*agent);
    for (const std::size_t index : {1U, 2U, 3U}) {
      ASSERT_EQ(agent->SendHeartMsg(), Result::kOk);
      const std::string body = manager.ReceiveBody(8);
      EXPECT_EQ(body.substr(0, 8), Word(index) + Word(0));
      // The manager reckons how long it took with a clock that counts from the boot.
      std::uint64_t sentMs = 0;
      ASSERT_EQ(body.copy(reinterpret_cast<char*>(&sentMs), sizeof(sentMs), 8), sizeof(sentMs));
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      EXPECT_LE(Agent::Milliseconds(sentMs), now);
      EXPECT_GT(Agent::Milliseconds(sentMs) + kPatience, now);
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
  for (std::uint32_t index = 1; index <= sent; ++index) {
    ASSERT_EQ(manager.ReceiveBody(8).substr(0, 4), Word(index));
  }
  // What found no room has not been counted.
  ASSERT_EQ(agent->SendHeartMsg(), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(8).substr(0, 4), Word(sent + 1));
}

}  // namespace
}  // namespace PmTest
