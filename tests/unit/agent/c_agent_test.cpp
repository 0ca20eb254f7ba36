// The C functions on the wire: each does what its C++ counterpart does, and refuses what a C
// program can get wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "agent/process_manager_agent_c.h"
#include "tests/support/threads.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using testing::HasSubstr;

constexpr std::int64_t kLongMs = 60'000;

struct Destroy {
  void operator()(pm_agent* agent) const { pm_agent_destroy(agent); }
};
using Handle = std::unique_ptr<pm_agent, Destroy>;

class CAgent : public AgentTest {
 protected:
  Handle Make(const pm_agent_callbacks* callbacks = nullptr) {
    pm_agent* agent = nullptr;
    EXPECT_EQ(pm_agent_create("svc", callbacks, &agent), 0);
    return Handle(agent);
  }

  // Connects as the manager does, and waits until the agent has seen it.
  FakeManager Connect(pm_agent* agent) {
    FakeManager manager(sandbox_, pm_agent_name(agent));
    EXPECT_EQ(pm_agent_wait_connected(agent, kLongMs), 0);
    return manager;
  }
};

pm_agent_start Start(const char* name) {
  pm_agent_start start{};
  start.size = sizeof(start);
  start.name = name;
  return start;
}

pm_agent_callbacks Into(LineRecorder& told) {
  pm_agent_callbacks callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.context = &told;
  callbacks.connected = [](void* to) { static_cast<LineRecorder*>(to)->Add("connected"); };
  callbacks.disconnected = [](void* to) { static_cast<LineRecorder*>(to)->Add("disconnected"); };
  callbacks.changes = [](void* to, const pm_agent_change* changes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
      text += std::string(changes[i].name) + " " + std::to_string(changes[i].pid) + " " +
              std::to_string(changes[i].gid) + " " + std::to_string(changes[i].state) + " " +
              std::to_string(changes[i].eio) + ";";
    }
    static_cast<LineRecorder*>(to)->Add(text);
  };
  callbacks.status = [](void* to, const pm_agent_status* status, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
      text += std::string(status[i].name) + "=" + std::to_string(status[i].status) + ";";
    }
    static_cast<LineRecorder*>(to)->Add(text);
  };
  return callbacks;
}

TEST_F(CAgent, RequestsByteByByte) {
  const Handle agent = Make();
  const FakeManager manager = Connect(agent.get());
  const char* const words[] = {"x", "y", nullptr};
  const char* const environment[] = {"K=1", "L=2", nullptr};
  const char* const names[] = {"bb", "a"};
  pm_agent_start plain = Start("a");
  plain.arguments = words;
  pm_agent_start open = Start("a");
  open.path = "/bin/a";
  open.vf = "7";
  open.environment = environment;
  const struct {
    int result;
    std::uint32_t type;
    std::string body;
  } cases[] = {
      {pm_agent_start_apps(agent.get(), &plain, 1, 0), 0, "1#a#2#x#y#0#"},
      {pm_agent_restart_apps(agent.get(), &open, 1, 0), 1, "1#a#0#3#0#1#/bin/a#1#1#7#2#2#K=1#L=2#"},
      {pm_agent_term_apps(agent.get(), names, 2, 0), 2, "2#a#bb#"},
      {pm_agent_report_state(agent.get(), PM_AGENT_UP, 0), 3, "1#0#"},
      {pm_agent_report_state(agent.get(), PM_AGENT_REPORT_ALL, 0), 3, "1#1#"},
      {pm_agent_report_state(agent.get(), PM_AGENT_READY, 0), 3, "1#2#"},
      {pm_agent_report_state(agent.get(), PM_AGENT_GOING_DOWN, 0), 3, "1#3#"},
      {pm_agent_report_execution(agent.get(), "a", -1, 34, 0, 0), 5, "1#a#4294967295#34#1#"},
      {pm_agent_report_execution(agent.get(), "a", 9, 34, 1, 0), 5, "1#a#9#34#0#"},
      {pm_agent_request_status(agent.get(), names, 2, 0), 9,
       Word(2) + Word(1) + "a" + Word(2) + "bb"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.result, 0) << c.body;
    EXPECT_EQ(manager.ReceiveBody(c.type), c.body);
  }
}

TEST_F(CAgent, ReportsReachTheCallbacks) {
  LineRecorder told;
  const pm_agent_callbacks callbacks = Into(told);
  const Handle agent = Make(&callbacks);
  FakeManager manager = Connect(agent.get());
  manager.Send(4, "2#a#12#34#0#0#b#4294967295#7#4#1#");
  manager.Send(10, Word(2) + Word(1) + "a" + Word(0) + Word(2) + "bb" + Word(2));
  manager.Close();
  EXPECT_EQ(told.Await(4),
            (Lines{"connected", "a 12 34 0 0;b -1 7 4 1;", "a=0;bb=2;", "disconnected"}));
  EXPECT_EQ(pm_agent_is_connected(agent.get()), 0);
}

TEST_F(CAgent, AnswersAreWaitedFor) {
  const Handle agent = Make();
  const FakeManager manager = Connect(agent.get());
  // In the order of the question, a name that is asked for twice included.
  const char* const names[] = {"bb", "a", "bb"};
  std::array<std::int32_t, 3> status{};
  int asked = 1;
  std::thread asks(
      [&] { asked = pm_agent_query_status(agent.get(), names, 3, kLongMs, status.data()); });
  (void)manager.ReceiveBody(9);
  manager.Send(10, Word(2) + Word(1) + "a" + Word(0) + Word(2) + "bb" + Word(2));
  asks.join();
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(status, (std::array<std::int32_t, 3>{PM_AGENT_APP_STOPPED, PM_AGENT_APP_THERE,
                                                 PM_AGENT_APP_STOPPED}));
  const pm_agent_pair pair{"board", "rev2"};
  std::uint32_t code = 0;
  int loaded = 0;
  std::thread loads(
      [&] { loaded = pm_agent_load_startup_cfg(agent.get(), &pair, 1, kLongMs, &code); });
  const RawPacket request = manager.Receive();
  EXPECT_THAT(request.data, HasSubstr("board#rev2"));
  EXPECT_TRUE(manager.Peer().Send(MakePacket(kResponse, request.sequence, "15795205")));
  loads.join();
  EXPECT_EQ(loaded, -EREMOTEIO);
  EXPECT_EQ(code, 15795205U);
}

TEST_F(CAgent, RefusesWhatACProgramGetsWrong) {
  const Handle agent = Make();
  pm_agent* const other = agent.get();
  pm_agent* made = nullptr;
  pm_agent_callbacks small{};
  small.size = sizeof(small) - 1;
  EXPECT_EQ(pm_agent_create("a/b", nullptr, &made), -EINVAL);
  EXPECT_EQ(pm_agent_create("svc2", &small, &made), -EINVAL);
  EXPECT_EQ(pm_agent_create("svc2", nullptr, nullptr), -EINVAL);
  EXPECT_EQ(pm_agent_create("svc", nullptr, &made), -EADDRINUSE);
  EXPECT_EQ(made, nullptr);
  // A program that was compiled against a later header gets along as long as it uses nothing new.
  struct {
    pm_agent_start known;
    const void* later;
  } wide{Start("a"), nullptr};
  wide.known.size = sizeof(wide);
  EXPECT_EQ(pm_agent_start_apps(other, &wide.known, 1, 0), -ENOTCONN);
  wide.later = &wide;
  EXPECT_EQ(pm_agent_start_apps(other, &wide.known, 1, 0), -EINVAL);
  const char* const hole[] = {"a", nullptr};
  const pm_agent_start nameless = Start(nullptr);
  const pm_agent_pair half{"k", nullptr};
  EXPECT_EQ(pm_agent_start_apps(other, &nameless, 1, 0), -EINVAL);
  EXPECT_EQ(pm_agent_start_apps(other, nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(pm_agent_term_apps(other, hole, 2, 0), -EINVAL);
  EXPECT_EQ(pm_agent_term_apps(other, nullptr, 0, 0), -EINVAL);
  EXPECT_EQ(pm_agent_query_status(other, hole, 1, 0, nullptr), -EINVAL);
  EXPECT_EQ(pm_agent_load_startup_cfg(other, &half, 1, 0, nullptr), -EINVAL);
  EXPECT_EQ(pm_agent_report_state(other, -1, 0), -EINVAL);
  EXPECT_EQ(pm_agent_report_state(nullptr, PM_AGENT_READY, 0), -EINVAL);
  EXPECT_EQ(pm_agent_report_state(other, PM_AGENT_READY, 20), -ENOTCONN);
  EXPECT_EQ(pm_agent_start_heartbeat(other, 500, 4), -EINVAL);
  EXPECT_EQ(pm_agent_start_heartbeat(other, 1, PM_AGENT_BEATS), -EINVAL);
  EXPECT_EQ(pm_agent_beat(other), -ECONNREFUSED);
  EXPECT_THAT(pm_agent_error_text(-ECONNREFUSED), HasSubstr("heartbeats"));
  EXPECT_STREQ(pm_agent_error_text(-12345), "unknown result");
  pm_agent_stop(other);
  EXPECT_EQ(pm_agent_report_state(other, PM_AGENT_READY, kLongMs), -ESHUTDOWN);
  pm_agent_destroy(nullptr);
}

// A callback may end the agent that calls it.
TEST_F(CAgent, CallbackMayDestroyItsAgent) {
  struct Context {
    LineRecorder told;
    pm_agent* agent = nullptr;
  } context;
  pm_agent_callbacks callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.context = &context;
  callbacks.changes = [](void* to, const pm_agent_change*, std::size_t) {
    auto* const own = static_cast<Context*>(to);
    own->told.Add(std::to_string(pm_agent_query_status(own->agent, nullptr, 0, 0, nullptr)));
    pm_agent_destroy(own->agent);
    own->told.Add("gone");
  };
  context.agent = Make(&callbacks).release();
  const FakeManager manager = Connect(context.agent);
  manager.Send(4, "1#a#12#34#0#0#");
  EXPECT_EQ(context.told.Await(2), (Lines{std::to_string(-EINVAL), "gone"}));
  EXPECT_TRUE(manager.Peer().AwaitClosed());
}

}  // namespace
}  // namespace PmTest
