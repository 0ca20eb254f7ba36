// Requests that wait for an answer: loading start-up configuration, asking who is there.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "agent/process_manager_agent.h"
#include "tests/support/threads.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Agent;
using ProcMgr::AppStatus;
using ProcMgr::Result;
using std::chrono::milliseconds;

using AgentAnswers = AgentTest;

constexpr std::uint32_t kLoad = 6;
constexpr std::uint32_t kReload = 7;
constexpr std::uint32_t kQuery = 9;
constexpr std::uint32_t kStatusReport = 10;

TEST_F(AgentAnswers, LoadAndReload) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  const struct {
    std::uint32_t type;
    std::string answer;
    Result result;
    std::uint32_t code;
  } cases[] = {
      {kLoad, "0", Result::kOk, 0},
      {kReload, "0", Result::kOk, 0},
      {kLoad, "15795205", Result::kLoadFailed, 15795205},
      {kReload, "", Result::kBadAnswer, 99},
      {kLoad, "1x", Result::kBadAnswer, 99},
      {kReload, "4294967296", Result::kBadAnswer, 99},
      {kLoad, std::string(65, '0'), Result::kBadAnswer, 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    std::thread answering([&] {
      const RawPacket packet = manager.Receive();
      EXPECT_EQ(packet.kind, kRequest);
      EXPECT_EQ(packet.data, FrameBytes(c.type, "1#/x.yaml#2#board#b1#car#c#"));
      EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, packet.sequence, c.answer)));
    });
    const ProcMgr::Message::StartupCfgInfo info{{{"car", "c"}, {"board", "b1"}}, "/x.yaml"};
    std::uint32_t code = 99;
    EXPECT_EQ(c.type == kLoad ? agent->LoadStartupCfg(info, kPatience, &code)
                              : agent->ReloadStartupCfg(info, kPatience, &code),
              c.result);
    EXPECT_EQ(code, c.code);
    answering.join();
  }
}

TEST_F(AgentAnswers, WaitsEndAtTheirLimitOrWithTheChannel) {
  const auto agent = MakeAgent();
  FakeManager manager = Connect(*agent);
  Agent::StatusMap status{{"kept", AppStatus::kThere}};
  EXPECT_EQ(agent->LoadStartupCfg({}, milliseconds(20)), Result::kTimeout);
  EXPECT_EQ(agent->QueryAppStatus({"a"}, milliseconds(20), status), Result::kTimeout);
  std::thread closing([&manager] {
    for (int i = 0; i < 4; ++i) {
      (void)manager.Receive();
    }
    manager.Close();
  });
  OnThreads(2, [&](int thread) {
    EXPECT_EQ(thread == 0 ? agent->LoadStartupCfg({}, milliseconds::max())
                          : agent->QueryAppStatus({"a"}, milliseconds::max(), status),
              Result::kDisconnected);
  });
  closing.join();
  EXPECT_EQ(status, (Agent::StatusMap{{"kept", AppStatus::kThere}}));
}

TEST_F(AgentAnswers, QueryTakesTheReportOnItsNames) {
  std::atomic<int> others = 0;
  Agent::Callbacks callbacks;
  callbacks.appStatus = [&](const Agent::StatusMap& status) {
    EXPECT_EQ(status, (Agent::StatusMap{{"other", AppStatus::kGone}}));
    ++others;
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  std::thread answering([&] {
    EXPECT_EQ(manager.ReceiveBody(kQuery), Word(3) + Word(1) + "a" + Word(1) + "b" + Word(1) + "c");
    manager.Send(kStatusReport, Word(1) + Word(5) + "other" + Word(1));
    manager.Send(kStatusReport, Word(3) + Word(1) + "a" + Word(0) + Word(1) + "b" + Word(1) +
                                    Word(1) + "c" + Word(2));
  });
  Agent::StatusMap status;
  EXPECT_EQ(agent->QueryAppStatus({"c", "a", "b", "a"}, kPatience, status), Result::kOk);
  EXPECT_EQ(status,
            (Agent::StatusMap{
                {"a", AppStatus::kThere}, {"b", AppStatus::kGone}, {"c", AppStatus::kStopped}}));
  EXPECT_EQ(others, 1);
  answering.join();
}

// Answers a question in binary, each name being there.
std::string AnswerTo(const std::string& question) {
  std::string answer = question.substr(0, 4);
  for (std::size_t at = 4; at < question.size();) {
    const std::size_t size = 4 + Number(question, at);
    answer += question.substr(at, size) + Word(0);
    at += size;
  }
  EXPECT_LE(answer.size(), 3964U);
  return answer;
}

// Answers everything that comes until the service hangs up; counts frames by their type.
std::map<std::size_t, int> AnswerAll(const FakeManager& manager) {
  std::map<std::size_t, int> counts;
  while (const std::optional<RawPacket> packet = manager.Peer().Receive()) {
    const std::size_t type = Number(packet->data, 0);
    ++counts[type];
    if (type == kQuery) {
      const std::string question = packet->data.substr(16, Number(packet->data, 8));
      manager.Send(kStatusReport, AnswerTo(question));
    } else if (type == kLoad) {
      EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, packet->sequence, "0")));
    }
  }
  return counts;
}

// The manager sends no answer that doesn't fit a frame, so the questions must be small enough.
TEST_F(AgentAnswers, ALongQueryIsAskedInParts) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  std::vector<std::string> names(1000);
  for (std::size_t i = 0; i < names.size(); ++i) {
    names[i] = "application-" + std::to_string(i);
  }
  std::thread answering([&] {
    // 23 bytes a name, 3960 bytes a frame.
    EXPECT_EQ(AnswerAll(manager)[kQuery], 6);
  });
  Agent::StatusMap status;
  EXPECT_EQ(agent->QueryAppStatus(names, kPatience, status), Result::kOk);
  EXPECT_EQ(status.size(), names.size());
  agent->Stop();
  answering.join();
}

TEST_F(AgentAnswers, WaitingInACallbackIsRefused) {
  std::unique_ptr<Agent> agent;
  LineRecorder told;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    Agent::StatusMap status;
    EXPECT_EQ(agent->QueryAppStatus({"a"}, kPatience, status), Result::kInCallback);
    EXPECT_EQ(agent->LoadStartupCfg({}, kPatience), Result::kInCallback);
    EXPECT_EQ(agent->RequestAppStatus({"a"}), Result::kOk);
    told.Add("called");
  };
  agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(4, "1#a#1#1#0#0#");
  EXPECT_EQ(told.Await(1), Lines{"called"});
}

TEST_F(AgentAnswers, ManyThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 50;
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  std::thread answering([&] {
    auto counts = AnswerAll(manager);
    for (const std::uint32_t type : {kQuery, kLoad, 2U}) {
      EXPECT_EQ(counts[type], kThreads * kRounds) << "type " << type;
    }
  });
  OnThreads(kThreads, [&agent](int thread) {
    // Some ask for the same names, some for their own.
    const std::string name = "app" + std::to_string(thread / 2);
    for (int i = 0; i < kRounds; ++i) {
      Agent::StatusMap status;
      EXPECT_EQ(agent->QueryAppStatus({name}, kPatience, status), Result::kOk);
      EXPECT_EQ(status, (Agent::StatusMap{{name, AppStatus::kThere}}));
      EXPECT_EQ(agent->LoadStartupCfg({}, kPatience), Result::kOk);
      EXPECT_EQ(agent->TermApps({name}), Result::kOk);
      EXPECT_NE(agent->SendHeartMsg(), Result::kNoChannel);
    }
  });
  agent->Stop();
  answering.join();
}

}  // namespace
}  // namespace PmTest
