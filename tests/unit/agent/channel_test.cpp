// The life of the channel: who may open it, what comes in through it, how it goes and comes back.
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "agent/process_manager_agent.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/threads.h"
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

// Callbacks that tell what they have been called with.
Agent::Callbacks Into(LineRecorder& told) {
  Agent::Callbacks callbacks;
  callbacks.connected = [&told] { told.Add("connected"); };
  callbacks.disconnected = [&told] { told.Add("disconnected"); };
  callbacks.appStates = [&told](const std::vector<AppStateInfo>& changes) {
    std::string text;
    for (const AppStateInfo& c : changes) {
      text += c.appName + " " + std::to_string(c.pid) + " " + std::to_string(c.gid) + " " +
              std::to_string(c.state) + " " + std::to_string(c.eioFlag) + ";";
    }
    told.Add(text);
  };
  callbacks.appStatus = [&told](const Agent::StatusMap& status) {
    std::string text;
    for (const auto& [name, value] : status) {
      text += name + "=" + std::to_string(static_cast<int>(value)) + ";";
    }
    told.Add(text);
  };
  return callbacks;
}

TEST_F(AgentChannel, ReportsArriveInOrderAndBrokenFramesDisturbNothing) {
  LineRecorder told;
  const auto agent = MakeAgent(Into(told));
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "2#a#12#34#0#0#b#4294967295#7#4#1#");
  manager.Send(kStatusReport, Word(2) + Word(1) + "a" + Word(0) + Word(2) + "bb" + Word(2));
  std::string oversized = FrameBytes(kStateReport, "1#x#1#1#0#0#");
  oversized[9] = '\x7f';
  for (const std::string& data :
       {std::string(), std::string("short"), std::string(3985, 'x'), oversized,
        FrameBytes(kStateReport, ""), FrameBytes(kStateReport, "1#cut"),
        FrameBytes(kStatusReport, Word(1) + Word(99) + "a"), FrameBytes(77, "1#x#1#1#0#0#"),
        FrameBytes(0, "1#x#0#0#")}) {
    EXPECT_TRUE(manager.Peer().Send(MakePacket(kRequest, 1, data)));
  }
  manager.Send(kStateReport, "1#a#12#34#3#0#");
  EXPECT_EQ(told.Await(4),
            (Lines{"connected", "a 12 34 0 0;b -1 7 4 1;", "a=0;bb=2;", "a 12 34 3 0;"}));
}

TEST_F(AgentChannel, RequestsWithoutAChannelSaySoOrWait) {
  const auto agent = MakeAgent();
  EXPECT_FALSE(agent->IsConnected());
  EXPECT_EQ(agent->ReportState(ServiceState::kReady), Result::kNoChannel);
  EXPECT_EQ(agent->TermApps({"a"}, milliseconds(20)), Result::kNoChannel);
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
  LineRecorder told;
  const auto agent = MakeAgent(Into(told));
  Lines expected;
  for (int round = 0; round < 3; ++round) {
    FakeManager manager = Connect(*agent);
    ASSERT_EQ(agent->TermApps({"a"}), Result::kOk);
    EXPECT_EQ(manager.ReceiveBody(2), "1#a#");
    manager.Close();
    expected.insert(expected.end(), {"connected", "disconnected"});
    EXPECT_EQ(told.Await(expected.size()), expected);
    EXPECT_EQ(agent->ReportState(ServiceState::kReady), Result::kNoChannel);
  }
}

TEST_F(AgentChannel, LastReportIsRepeatedOnEachNewChannelAndNeverTwiceOnOne) {
  const auto agent = MakeAgent();
  // A report that finds no channel fails, and nothing remains of it.
  ASSERT_EQ(agent->ReportState(ServiceState::kGoingDown), Result::kNoChannel);
  {
    const FakeManager first = Connect(*agent);
    ASSERT_EQ(agent->ReportState(ServiceState::kReady), Result::kOk);
    ASSERT_EQ(agent->ReportState(ServiceState::kReportAll), Result::kOk);
    EXPECT_EQ(first.ReceiveBody(3), "1#2#");
    EXPECT_EQ(first.ReceiveBody(3), "1#1#");
  }
  {
    const FakeManager second = Connect(*agent);
    EXPECT_EQ(second.ReceiveBody(3), "1#2#");
    ASSERT_EQ(agent->TermApps({"a"}), Result::kOk);
    EXPECT_EQ(second.ReceiveBody(2), "1#a#");
  }
  // Without a channel, but with something to replace.
  ASSERT_TRUE(Eventually([&] { return !agent->IsConnected(); }));
  ASSERT_EQ(agent->ReportState(ServiceState::kGoingDown), Result::kNoChannel);
  const FakeManager third = Connect(*agent);
  EXPECT_EQ(third.ReceiveBody(3), "1#3#");
}

// The service's callback of the old channel runs while the manager is already back.
TEST_F(AgentChannel, NewChannelTakesThePlaceOfTheOldAndCallbacksComeOneAtATime) {
  LineRecorder told;
  Gate gate;
  Agent::Callbacks callbacks = Into(told);
  callbacks.appStates = [&](const std::vector<AppStateInfo>& changes) {
    told.Add("begin " + changes[0].appName);
    gate.Pass();
    told.Add("end " + changes[0].appName);
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager old = Connect(*agent);
  old.Send(kStateReport, "1#a#1#1#0#0#");
  EXPECT_TRUE(gate.AwaitArrivals(1));
  const FakeManager fresh(sandbox_, "svc");
  fresh.Send(kStateReport, "1#b#1#1#0#0#");
  // The new channel counts at once, though its news has to wait.
  const auto sent = [&] {
    return agent->TermApps({"a"}) == Result::kOk &&
           fresh.Peer().Receive(milliseconds(1)).has_value();
  };
  EXPECT_TRUE(Eventually(sent));
  EXPECT_EQ(told.Await(2), (Lines{"connected", "begin a"}));
  gate.Open();
  EXPECT_TRUE(old.Peer().AwaitClosed());
  EXPECT_EQ(told.Await(6),
            (Lines{"connected", "begin a", "end a", "connected", "begin b", "end b"}));
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

// True if the connection that `connect` makes as `user` becomes the channel; otherwise the one that
// was there goes on.
template <typename Connect>
bool IsLetIn(Agent& agent, const FakeManager& first, uid_t user, const Connect& connect) {
  bool letIn = false;
  AsUser(user, [&] {
    const FakeManager other(connect());
    EXPECT_TRUE(Eventually([&] {
      letIn = first.Peer().AwaitClosed(milliseconds(1));
      return letIn || other.Peer().AwaitClosed(milliseconds(1));
    }));
  });
  if (!letIn) {
    EXPECT_EQ(agent.TermApps({"a"}), Result::kOk);
    EXPECT_EQ(first.ReceiveBody(2), "1#a#");
  }
  return letIn;
}

TEST_F(AgentChannel, OnlyRootAndTheOwnUserAreLetIn) {
  const auto roots = MakeAgent({}, "roots");
  std::unique_ptr<Agent> users;
  AsUser(1234, [&] { users = MakeAgent({}, "users"); });
  ASSERT_NE(users, nullptr);
  const auto isLetIn = [this](Agent& agent, uid_t user) {
    return IsLetIn(agent, Connect(agent), user,
                   [&] { return ConnectRaw(sandbox_, agent.Name()).value(); });
  };
  EXPECT_FALSE(isLetIn(*roots, 1234));
  EXPECT_FALSE(isLetIn(*users, 1235));
  EXPECT_TRUE(isLetIn(*users, 1234));
}

// Of those only the process that the manager's file names, and only if it is root's.
TEST_F(AgentChannel, OnlyTheManagerOfAUserIsLetIn) {
  constexpr const char* kFile = "/run/process-manager.pid";
  const auto agent = MakeAgent();
  struct Case {
    std::string text;  // Of the file, with P in place of the process's pid.
    uid_t owner;
    mode_t mode;
    bool isLetIn;
  };
  const Case cases[] = {
      {"P\n", 0, 0644, true},       {"1\n", 0, 0644, false},
      {"4194305\n", 0, 0644, true},  // No process has such a number: that manager has gone.
      {"P\n", 1234, 0644, false},   {"P\n", 0, 0646, false},
      {"P", 0, 0644, false},        {"", 0, 0644, false},
  };
  const auto connect = [&](const std::function<void(pid_t)>& before) {
    return [&, before] { return ConnectRawAsAnother(sandbox_, "svc", before).value(); };
  };
  EXPECT_TRUE(IsLetIn(*agent, Connect(*agent), 0, connect([](pid_t) {}))) << "no manager yet";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text + " " + std::to_string(c.owner));
    LogCapture log;
    pid_t other = 0;
    const auto write = [&](pid_t pid) {
      other = pid;
      std::string text = c.text;
      if (const std::size_t at = text.find('P'); at != std::string::npos) {
        text.replace(at, 1, std::to_string(pid));
      }
      sandbox_.WriteFile(kFile, text, c.mode);
      CheckStep(chown(kFile, c.owner, 0) == 0, "give the file away");
    };
    EXPECT_EQ(IsLetIn(*agent, Connect(*agent), 0, connect(write)), c.isLetIn);
    EXPECT_THAT(
        log.Take(),
        testing::Contains(testing::HasSubstr("serves, pid=" + std::to_string(other) + ", uid=0,"))
            .Times(c.isLetIn ? 0 : 1));
  }
}

TEST_F(AgentChannel, NamesThatCannotBeServed) {
  std::unique_ptr<Agent> agent;
  for (const std::string& name : {std::string("a/b"), std::string("a\0b", 3)}) {
    EXPECT_EQ(Agent::Create({name, {}}, agent), Result::kInvalidName) << name;
  }
  const auto first = MakeAgent({}, "taken");
  EXPECT_EQ(Agent::Create({"taken", {}}, agent), Result::kNameTaken);
  EXPECT_EQ(agent, nullptr);
}

// Whoever forgets the name finds in the log what is missing, and where to put it.
TEST_F(AgentChannel, ForgottenNameIsToldInOneLine) {
  const struct {
    const char* inherited;
    const char* told;
  } cases[] = {{"PROCMGR", "PROC_NAME is PROCMGR, inherited from the manager. Put envArgv:"},
               {"", "PROC_NAME isn't set. Put envArgv: {PROC_NAME: <its appName>}"}};
  LogCapture log;
  std::unique_ptr<Agent> agent;
  for (const auto& c : cases) {
    ASSERT_EQ(setenv("PROC_NAME", c.inherited, 1), 0);
    EXPECT_EQ(Agent::Create({}, agent), Result::kInvalidName);
    const std::vector<std::string> lines = log.Take();
    ASSERT_EQ(lines.size(), 1U) << testing::PrintToString(lines);
    EXPECT_THAT(lines.front(), testing::HasSubstr(c.told));
  }
  ASSERT_EQ(setenv("PROC_NAME", "svc", 1), 0);
  EXPECT_EQ(Agent::Create({}, agent), Result::kOk);
  EXPECT_EQ(agent->Name(), "svc");
  ASSERT_EQ(unsetenv("PROC_NAME"), 0);
}

TEST_F(AgentChannel, StopWakesWhoWaitsAndFreesTheName) {
  const auto idle = MakeAgent({}, "idle");
  const auto busy = MakeAgent({}, "busy");
  const FakeManager manager = Connect(*busy);
  std::thread stopping([&] {
    (void)manager.ReceiveBody(9);
    idle->Stop();
    busy->Stop();
  });
  OnThreads(2, [&](int thread) {
    Agent::StatusMap status;
    EXPECT_EQ(thread == 0 ? idle->WaitConnected(milliseconds::max())
                          : busy->QueryAppStatus({"a"}, milliseconds::max(), status),
              Result::kStopped);
  });
  stopping.join();
  EXPECT_TRUE(manager.Peer().AwaitClosed());
  EXPECT_EQ(busy->TermApps({"a"}), Result::kStopped);
  EXPECT_EQ(busy->StartHeartbeat(), Result::kStopped);
  EXPECT_NE(MakeAgent({}, "busy"), nullptr);
}

TEST_F(AgentChannel, StopWaitsForTheCallbackThatRunsAndLetsNoOtherIn) {
  LineRecorder told;
  Gate gate;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    gate.Pass();
    told.Add("end of the callback");
  };
  const auto agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  EXPECT_TRUE(gate.AwaitArrivals(1));
  std::thread stopping([&] {
    agent->Stop();
    told.Add("end of the stop");
  });
  EXPECT_TRUE(Eventually([&] { return agent->TermApps({"a"}) == Result::kStopped; }));
  gate.Open();
  stopping.join();
  EXPECT_EQ(told.Await(2), (Lines{"end of the callback", "end of the stop"}));
}

TEST_F(AgentChannel, ACallbackMayDestroyTheAgent) {
  std::unique_ptr<Agent> agent;
  LineRecorder told;
  Agent::Callbacks callbacks;
  callbacks.appStates = [&](const auto&) {
    agent.reset();
    told.Add("gone");
  };
  agent = MakeAgent(callbacks);
  const FakeManager manager = Connect(*agent);
  manager.Send(kStateReport, "1#a#1#1#0#0#");
  EXPECT_TRUE(manager.Peer().AwaitClosed());
  EXPECT_EQ(told.Await(1), Lines{"gone"});
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
  EXPECT_THAT(log.Take(),
              testing::Contains("E ProcMgrAgent : a callback of the service threw: the service's "
                                "own trouble"));
}

// Agents, channels that break, channels that are replaced: nothing stays behind.
TEST_F(AgentChannel, NoDescriptorAndNoThreadIsLeftOver) {
  (void)MakeAgent();  // Starts the library's threads.
  const std::size_t descriptors = OpenDescriptors(getpid()).size();
  const std::size_t threads = Threads(getpid()).size();
  for (int round = 0; round < 20; ++round) {
    const auto agent = MakeAgent();
    ASSERT_EQ(agent->StartHeartbeat(), Result::kOk);
    const FakeManager old = Connect(*agent);
    FakeManager broken(sandbox_, "svc");
    EXPECT_TRUE(old.Peer().AwaitClosed());
    broken.Close();
  }
  // Fewer, if something of an earlier test was still on its way out at the count.
  EXPECT_TRUE(Eventually([&] { return OpenDescriptors(getpid()).size() <= descriptors; }));
  EXPECT_TRUE(Eventually([&] { return Threads(getpid()).size() <= threads; }));
}

}  // namespace
}  // namespace PmTest
