// The life of the channel: who may open it, what comes in through it, how it goes and comes back.
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "agent/process_manager_agent.h"
#include "tests/support/log_capture.h"
#include "tests/support/system_error.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Agent;
using ProcMgr::Result;
using ProcMgr::ServiceState;
using ProcMgr::Message::AppStateInfo;
using std::chrono::milliseconds;

using AgentChannel = AgentTest;

constexpr std::uint32_t kStateReport = 4;
constexpr std::uint32_t kStatusReport = 10;

// What the callbacks of an agent have told, as text, in the order of the calls.
class Told {
 public:
  Agent::Callbacks Callbacks() {
    Agent::Callbacks callbacks;
    callbacks.connected = [this] { Add("connected"); };
    callbacks.disconnected = [this] { Add("disconnected"); };
    callbacks.appStates = [this](const std::vector<AppStateInfo>& changes) {
      std::string text;
      for (const AppStateInfo& c : changes) {
        text += c.appName + " " + std::to_string(c.pid) + " " + std::to_string(c.gid) + " " +
                std::to_string(c.state) + " " + std::to_string(c.eioFlag) + ";";
      }
      Add(text);
    };
    callbacks.appStatus = [this](const Agent::StatusMap& status) {
      std::string text;
      for (const auto& [name, value] : status) {
        text += name + "=" + std::to_string(static_cast<int>(value)) + ";";
      }
      Add(text);
    };
    return callbacks;
  }

  [[nodiscard]] std::vector<std::string> Await(std::size_t count) {
    (void)Eventually([&] { return Lines().size() >= count; });
    return Lines();
  }

 private:
  void Add(const std::string& line) {
    const std::scoped_lock lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> Lines() {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

using Lines = std::vector<std::string>;

TEST_F(AgentChannel, ReportsArriveInOrder) {
  Told told;
  const auto agent = MakeAgent(told.Callbacks());
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "2#a#12#34#0#0#b#4294967295#7#4#1#");
  manager.Send(kStatusReport, Word(2) + Word(1) + "a" + Word(0) + Word(2) + "bb" + Word(2));
  manager.Send(kStateReport, "1#a#12#34#3#0#");
  EXPECT_EQ(told.Await(4),
            (Lines{"connected", "a 12 34 0 0;b -1 7 4 1;", "a=0;bb=2;", "a 12 34 3 0;"}));
}

TEST_F(AgentChannel, BrokenFramesDisturbNothing) {
  Told told;
  const auto agent = MakeAgent(told.Callbacks());
  const FakeManager manager = Connect(*agent);
  std::string oversized = FrameBytes(kStateReport, "1#x#1#1#0#0#");
  oversized[9] = '\x7f';
  for (const std::string& data :
       {std::string(), std::string("short"), std::string(3985, 'x'), oversized,
        FrameBytes(kStateReport, ""), FrameBytes(kStateReport, "1#cut"),
        FrameBytes(kStatusReport, Word(1) + Word(99) + "a"), FrameBytes(77, "1#x#1#1#0#0#"),
        FrameBytes(0, "1#x#0#0#")}) {
    EXPECT_TRUE(manager.Peer().Send(MakePacket(kRequest, 1, data)));
  }
  manager.Send(kStateReport, "1#good#1#1#0#0#");
  EXPECT_EQ(told.Await(2), (Lines{"connected", "good 1 1 0 0;"}));
}

TEST_F(AgentChannel, RequestsWithoutAChannelSaySoOrWait) {
  const auto agent = MakeAgent();
  EXPECT_FALSE(agent->IsConnected());
  EXPECT_EQ(agent->ReportState(ServiceState::kReady), Result::kNoChannel);
  EXPECT_EQ(agent->TermApps({"a"}, milliseconds(20)), Result::kNoChannel);
  EXPECT_EQ(agent->WaitConnected(milliseconds(20)), Result::kNoChannel);
  EXPECT_EQ(agent->WaitConnected(milliseconds::min()), Result::kNoChannel);
  EXPECT_EQ(agent->LoadStartupCfg({}, milliseconds(20)), Result::kNoChannel);
  Result waited = Result::kSystemError;
  std::thread waiting([&] { waited = agent->TermApps({"a"}, milliseconds::max()); });
  const FakeManager manager(sandbox_, "svc");
  EXPECT_EQ(manager.ReceiveBody(2), "1#a#");
  waiting.join();
  EXPECT_EQ(waited, Result::kOk);
  EXPECT_TRUE(agent->IsConnected());
}

TEST_F(AgentChannel, ManagerGoesAndComesBack) {
  Told told;
  const auto agent = MakeAgent(told.Callbacks());
  for (std::size_t round = 0; round < 3; ++round) {
    FakeManager manager = Connect(*agent);
    ASSERT_EQ(agent->TermApps({"a"}), Result::kOk);
    EXPECT_EQ(manager.ReceiveBody(2), "1#a#");
    manager.Close();
    EXPECT_EQ(told.Await(2 * round + 2).back(), "disconnected");
    EXPECT_EQ(agent->ReportState(ServiceState::kReady), Result::kNoChannel);
  }
}

TEST_F(AgentChannel, NewChannelTakesThePlaceOfTheOld) {
  Told told;
  const auto agent = MakeAgent(told.Callbacks());
  const FakeManager old = Connect(*agent);
  // Two that come in one go may be told as one.
  EXPECT_EQ(told.Await(1), Lines{"connected"});
  const FakeManager fresh(sandbox_, "svc");
  EXPECT_TRUE(old.Peer().AwaitClosed());
  ASSERT_EQ(agent->TermApps({"a"}), Result::kOk);
  EXPECT_EQ(fresh.ReceiveBody(2), "1#a#");
  fresh.Send(kStateReport, "1#a#1#1#0#0#");
  EXPECT_EQ(told.Await(3), (Lines{"connected", "connected", "a 1 1 0 0;"}));
}

// The service's callback of the old channel runs while the manager is already back.
TEST_F(AgentChannel, CallbacksComeOneAtATimeAcrossChannels) {
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  std::atomic<bool> entered = false;
  std::atomic<bool> leave = false;
  std::atomic<bool> connectedAgain = false;
  Agent::Callbacks callbacks;
  const auto count = [&](const auto& body) {
    most = std::max(most.load(), ++running);
    body();
    --running;
  };
  callbacks.connected = [&] { count([&] { connectedAgain = entered.load(); }); };
  callbacks.appStates = [&](const auto&) {
    count([&] {
      entered = true;
      EXPECT_TRUE(Eventually([&] { return leave.load(); }));
    });
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager old = Connect(*agent);
  old.Send(kStateReport, "1#a#1#1#0#0#");
  ASSERT_TRUE(Eventually([&] { return entered.load(); }));
  const FakeManager fresh(sandbox_, "svc");
  // The new channel counts at once, though its news has to wait.
  const auto sent = [&] {
    return agent->TermApps({"a"}) == Result::kOk &&
           fresh.Peer().Receive(milliseconds(1)).has_value();
  };
  EXPECT_TRUE(Eventually(sent));
  EXPECT_FALSE(connectedAgain);
  leave = true;
  EXPECT_TRUE(Eventually([&] { return connectedAgain.load(); }));
  EXPECT_TRUE(old.Peer().AwaitClosed());
  EXPECT_EQ(most, 1);
}

// Runs `body` with the calling thread's effective user changed. The C library's call would change
// that of the whole process.
template <typename Body>
void AsUser(uid_t user, const Body& body) {
  std::thread([&] {
    CheckStep(syscall(SYS_setresuid, -1, user, -1) == 0, "take on the user");
    body();
    CheckStep(syscall(SYS_setresuid, -1, 0, -1) == 0, "give back the user");
  }).join();
}

// Connects under `user` and yields true if that became the channel, false if it was closed.
bool IsLetIn(const Sandbox& sandbox, const Agent& agent, uid_t user) {
  bool letIn = false;
  AsUser(user, [&] {
    const FakeManager manager(sandbox, agent.Name());
    EXPECT_TRUE(Eventually([&] {
      letIn = agent.IsConnected();
      return letIn || manager.Peer().AwaitClosed(milliseconds(1));
    }));
  });
  EXPECT_TRUE(Eventually([&] { return !agent.IsConnected(); }));
  return letIn;
}

TEST_F(AgentChannel, OnlyRootAndTheOwnUserAreLetIn) {
  const auto roots = MakeAgent({}, "roots");
  std::unique_ptr<Agent> users;
  AsUser(1234, [&] { users = MakeAgent({}, "users"); });
  ASSERT_NE(users, nullptr);
  EXPECT_TRUE(IsLetIn(sandbox_, *roots, 0));
  EXPECT_FALSE(IsLetIn(sandbox_, *roots, 1234));
  EXPECT_TRUE(IsLetIn(sandbox_, *users, 0));
  EXPECT_TRUE(IsLetIn(sandbox_, *users, 1234));
  EXPECT_FALSE(IsLetIn(sandbox_, *users, 1235));
}

TEST_F(AgentChannel, AStrangerDoesNotDisturbTheChannel) {
  const auto agent = MakeAgent();
  const FakeManager manager = Connect(*agent);
  AsUser(1234, [&] {
    const FakeManager stranger(sandbox_, "svc");
    EXPECT_TRUE(stranger.Peer().AwaitClosed());
  });
  ASSERT_EQ(agent->TermApps({"a"}), Result::kOk);
  EXPECT_EQ(manager.ReceiveBody(2), "1#a#");
}

TEST_F(AgentChannel, TheNameOfTheEnvironmentIsServed) {
  for (const auto& [value, expected] :
       {std::pair("from-env", Result::kOk), std::pair("PROCMGR", Result::kInvalidName)}) {
    ASSERT_EQ(setenv("PROC_NAME", value, 1), 0);
    std::unique_ptr<Agent> agent;
    EXPECT_EQ(Agent::Create({}, agent), expected);
    EXPECT_EQ(agent == nullptr ? "" : agent->Name(), expected == Result::kOk ? value : "");
  }
  ASSERT_EQ(unsetenv("PROC_NAME"), 0);
}

TEST_F(AgentChannel, NamesThatCannotBeServed) {
  const auto first = MakeAgent({}, "taken");
  const std::pair<std::string, Result> cases[] = {{"taken", Result::kNameTaken},
                                                  {"", Result::kInvalidName},
                                                  {"PROCMGR", Result::kInvalidName},
                                                  {"a/b", Result::kInvalidName},
                                                  {".a", Result::kInvalidName},
                                                  {"a#b", Result::kInvalidName},
                                                  {std::string(65, 'a'), Result::kInvalidName},
                                                  {std::string("a\0b", 3), Result::kInvalidName}};
  for (const auto& [name, expected] : cases) {
    std::unique_ptr<Agent> agent;
    EXPECT_EQ(Agent::Create({name, {}}, agent), expected) << name;
    EXPECT_EQ(agent, nullptr);
  }
}

TEST_F(AgentChannel, StopWakesWhoWaitsAndFreesTheName) {
  const auto agent = MakeAgent();
  std::vector<Result> results(2, Result::kOk);
  std::thread forChannel([&] { results[0] = agent->WaitConnected(milliseconds::max()); });
  const auto busy = MakeAgent({}, "busy");
  const FakeManager manager = Connect(*busy);
  Agent::StatusMap status;
  std::thread forAnswer(
      [&] { results[1] = busy->QueryAppStatus({"a"}, milliseconds::max(), status); });
  (void)manager.ReceiveBody(9);
  agent->Stop();
  busy->Stop();
  forChannel.join();
  forAnswer.join();
  EXPECT_EQ(results, std::vector<Result>(2, Result::kStopped));
  EXPECT_TRUE(manager.Peer().AwaitClosed());
  EXPECT_EQ(busy->TermApps({"a"}), Result::kStopped);
  EXPECT_EQ(busy->StartHeartbeat(), Result::kStopped);
  EXPECT_NE(MakeAgent({}, "busy"), nullptr);
}

TEST_F(AgentChannel, StopWaitsForTheCallbackThatRunsAndLetsNoOtherIn) {
  std::atomic<bool> entered = false;
  std::atomic<bool> leave = false;
  std::atomic<bool> left = false;
  std::atomic<int> calls = 0;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    ++calls;
    entered = true;
    EXPECT_TRUE(Eventually([&] { return leave.load(); }));
    left = true;
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  ASSERT_TRUE(Eventually([&] { return entered.load(); }));
  bool leftBeforeReturn = false;
  std::thread stopping([&] {
    agent->Stop();
    leftBeforeReturn = left;
  });
  EXPECT_TRUE(Eventually([&] { return agent->TermApps({"a"}) == Result::kStopped; }));
  leave = true;
  stopping.join();
  EXPECT_TRUE(leftBeforeReturn);
  EXPECT_EQ(calls, 1);
}

TEST_F(AgentChannel, ACallbackMayDestroyTheAgent) {
  std::unique_ptr<Agent> agent;
  std::atomic<bool> gone = false;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    agent.reset();
    gone = true;
  };
  agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  EXPECT_TRUE(manager.Peer().AwaitClosed());
  EXPECT_TRUE(Eventually([&] { return gone.load(); }));
}

TEST_F(AgentChannel, ACallbackThatThrowsEndsNothing) {
  LogCapture log;
  std::atomic<int> calls = 0;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    ++calls;
    throw std::runtime_error("the service's own trouble");
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  ASSERT_TRUE(Eventually([&] { return calls == 2; }));
  const Lines lines = log.Take();
  EXPECT_NE(
      std::find(lines.begin(), lines.end(),
                "E ProcMgrAgent : a callback of the service threw: the service's own trouble"),
      lines.end());
}

std::size_t CountEntries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// Agents, channels that break, channels that are replaced: nothing stays behind.
TEST_F(AgentChannel, NoDescriptorAndNoThreadIsLeftOver) {
  (void)MakeAgent();  // Starts the library's threads.
  const std::size_t descriptors = CountEntries("/proc/self/fd");
  const std::size_t threads = CountEntries("/proc/self/task");
  for (int round = 0; round < 20; ++round) {
    const auto agent = MakeAgent();
    ASSERT_EQ(agent->StartHeartbeat(), Result::kOk);
    const FakeManager old = Connect(*agent);
    FakeManager broken(sandbox_, "svc");
    EXPECT_TRUE(old.Peer().AwaitClosed());
    broken.Close();
  }
  // Fewer, if something of an earlier test was still on its way out at the count.
  EXPECT_TRUE(Eventually([&] { return CountEntries("/proc/self/fd") <= descriptors; }));
  EXPECT_TRUE(Eventually([&] { return CountEntries("/proc/self/task") <= threads; }));
}

}  // namespace
}  // namespace PmTest
