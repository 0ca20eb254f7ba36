// Requests that wait for an answer: loading start-up configuration, asking who is there.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "agent/process_manager_agent.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Agent;
using ProcMgr::AppStatus;
using ProcMgr::Result;
using std::chrono::milliseconds;

using AgentAnswers = AgentTest;

constexpr std::uint32_t kQuery = 9;
constexpr std::uint32_t kStatusReport = 10;

TEST_F(AgentAnswers, LoadAndReload) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  const struct {
    const char* answer;
    Result result;
    std::uint32_t code;
  } cases[] = {
      {"0", Result::kOk, 0},
      {"15795205", Result::kLoadFailed, 15795205},
      {"", Result::kBadAnswer, 99},
      {"1x", Result::kBadAnswer, 99},
      {"4294967296", Result::kBadAnswer, 99},
      {"0000000000000000000000000000000000000000000000000000000000000000000", Result::kBadAnswer,
       99},
  };
  std::uint32_t type = 6;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    std::thread answering([&] {
      const RawPacket packet = manager.Receive();
      EXPECT_EQ(packet.kind, kRequest);
      EXPECT_EQ(packet.data, FrameBytes(type, "1#/x.yaml#2#board#b1#car#c#"));
      EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, packet.sequence, c.answer)));
    });
    const ProcMgr::Message::StartupCfgInfo info{{{"car", "c"}, {"board", "b1"}}, "/x.yaml"};
    std::uint32_t code = 99;
    EXPECT_EQ(type == 6 ? agent->LoadStartupCfg(info, kPatience, &code)
                        : agent->ReloadStartupCfg(info, kPatience, &code),
              c.result);
    EXPECT_EQ(code, c.code);
    answering.join();
    type = 13 - type;
  }
}

TEST_F(AgentAnswers, LoadHasALimitAndSurvivesALateAnswer) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  EXPECT_EQ(agent->LoadStartupCfg({}, milliseconds(20)), Result::kTimeout);
  const RawPacket late = manager.Receive();
  EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, late.sequence, "0")));
  std::thread answering([&] {
    const RawPacket packet = manager.Receive();
    EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, packet.sequence, "15795205")));
  });
  EXPECT_EQ(agent->LoadStartupCfg({}, kPatience), Result::kLoadFailed);
  answering.join();
}

TEST_F(AgentAnswers, LoadAndQueryEndWithTheChannel) {
  const auto agent = MakeAgent();
  FakeManager manager = Connect(*agent);
  Agent::StatusMap status{{"kept", AppStatus::kThere}};
  std::vector<Result> results(2, Result::kOk);
  std::thread loading([&] { results[0] = agent->LoadStartupCfg({}, milliseconds::max()); });
  std::thread asking(
      [&] { results[1] = agent->QueryAppStatus({"a"}, milliseconds::max(), status); });
  (void)manager.Receive();
  (void)manager.Receive();
  manager.Close();
  loading.join();
  asking.join();
  EXPECT_EQ(results, std::vector<Result>(2, Result::kDisconnected));
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

TEST_F(AgentAnswers, QueryHasALimit) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  Agent::StatusMap status;
  EXPECT_EQ(agent->QueryAppStatus({"a"}, milliseconds(20), status), Result::kTimeout);
  EXPECT_TRUE(status.empty());
}

// Answers a question in binary, each name being there.
std::string AnswerTo(const std::string& question) {
  std::string answer = question.substr(0, 4);
  for (std::size_t at = 4; at < question.size();) {
    const std::size_t length = static_cast<unsigned char>(question[at]) +
                               256U * static_cast<unsigned char>(question[at + 1]);
    answer += question.substr(at, 4 + length) + Word(0);
    at += 4 + length;
  }
  return answer;
}

// The manager sends no answer that doesn't fit a frame, so the questions must be small enough.
TEST_F(AgentAnswers, ALongQueryIsAskedInParts) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  std::vector<std::string> names(1000);
  for (std::size_t i = 0; i < names.size(); ++i) {
    names[i] = "application-" + std::to_string(i);
  }
  std::atomic<int> questions = 0;
  std::thread answering([&] {
    for (std::size_t answered = 0; answered < names.size(); ++questions) {
      const std::string answer = AnswerTo(manager.ReceiveBody(kQuery));
      ASSERT_LE(answer.size(), 3964U);
      ASSERT_GT(answer.size(), 4U);
      answered +=
          static_cast<unsigned char>(answer[0]) + 256U * static_cast<unsigned char>(answer[1]);
      manager.Send(kStatusReport, answer);
    }
  });
  Agent::StatusMap status;
  EXPECT_EQ(agent->QueryAppStatus(names, kPatience, status), Result::kOk);
  answering.join();
  EXPECT_EQ(status.size(), names.size());
  EXPECT_EQ(questions, 6);  // 23 bytes a name, 3960 bytes a frame.
}

TEST_F(AgentAnswers, WaitingInACallbackIsRefused) {
  std::unique_ptr<Agent> agent;
  std::vector<Result> results;
  std::atomic<bool> done = false;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    Agent::StatusMap status;
    results = {agent->QueryAppStatus({"a"}, kPatience, status),
               agent->LoadStartupCfg({}, kPatience), agent->RequestAppStatus({"a"})};
    done = true;
  };
  agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(4, "1#a#1#1#0#0#");
  ASSERT_TRUE(Eventually([&] { return done.load(); }));
  EXPECT_EQ(results, (std::vector{Result::kInCallback, Result::kInCallback, Result::kOk}));
}

// Answers everything that comes until the service hangs up; counts frames by their type.
std::map<std::uint32_t, int> AnswerAll(const FakeManager& manager) {
  std::map<std::uint32_t, int> counts;
  while (const std::optional<RawPacket> packet = manager.Peer().Receive()) {
    if (packet->data.size() != 3984) {
      ADD_FAILURE() << "not a frame: " << packet->data.size() << " bytes";
      break;
    }
    const std::uint32_t type = static_cast<unsigned char>(packet->data[0]);
    ++counts[type];
    if (type == kQuery) {
      const std::size_t size = static_cast<unsigned char>(packet->data[8]) +
                               256U * static_cast<unsigned char>(packet->data[9]);
      manager.Send(kStatusReport, AnswerTo(packet->data.substr(16, size)));
    } else if (type == 6) {
      EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, packet->sequence, "0")));
    }
  }
  return counts;
}

TEST_F(AgentAnswers, ManyThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 50;
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  std::map<std::uint32_t, int> counts;
  std::thread answering([&] { counts = AnswerAll(manager); });
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::atomic<int> failures = 0;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Some ask for the same names, some for their own.
      const std::string name = "app" + std::to_string(t / 2);
      for (int i = 0; i < kRounds; ++i) {
        Agent::StatusMap status;
        const bool ok =
            agent->QueryAppStatus({name}, kPatience, status) == Result::kOk && status.size() == 1 &&
            status.begin()->first == name && agent->LoadStartupCfg({}, kPatience) == Result::kOk &&
            agent->TermApps({name}) == Result::kOk && agent->SendHeartMsg() != Result::kNoChannel;
        failures += ok ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  agent->Stop();
  answering.join();
  EXPECT_EQ(failures, 0);
  for (const std::uint32_t type : {kQuery, 6U, 2U}) {
    EXPECT_EQ(counts[type], kThreads * kRounds) << "type " << type;
  }
}

}  // namespace
}  // namespace PmTest
