// The races: closing against callbacks and floods, peers that die, the end of the program.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <set>
#include <thread>

#include "base/sleep.h"
#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

TEST(NexioRace, CloseDuringACallbackIsBusyAndComesTrueWhenItReturns) {
  Gate gate;
  LineRecorder told;
  const RawChannel busy("busy", [&](int fd, const ProcMgr::NexioRequest* request) {
    Into(told)(fd, request);
    gate.Pass();
    // Still open for its own callback.
    EXPECT_EQ(SendText(fd, "from within"), 0);
  });
  busy.Request(1, "first");
  busy.Request(2, "never told");
  EXPECT_TRUE(gate.AwaitArrivals(1));
  EXPECT_EQ(ProcMgr::NexioClosePipe(busy.fd), ProcMgr::kNexioCallback);
  EXPECT_EQ(ProcMgr::NexioClosePipe(busy.fd), ProcMgr::kNexioCallback);
  gate.Open();
  // Closed without another request; whoever asks again hears so, once.
  EXPECT_TRUE(busy.peer.AwaitClosed());
  EXPECT_TRUE(Close(busy.fd));
  EXPECT_EQ(ProcMgr::NexioClosePipe(busy.fd), ProcMgr::kNexioBadFd);
  EXPECT_EQ(told.Await(1), Lines{"first"});
}

TEST(NexioRace, CallbackMayCloseItsOwnDescriptor) {
  const std::size_t before = DescriptorCount();
  LineRecorder told;
  {
    const RawChannel own("own", [&told](int fd, const ProcMgr::NexioRequest*) {
      told.Add(std::to_string(ProcMgr::NexioClosePipe(fd)));
    });
    own.Request(1, "close");
    (void)own.peer.Send(MakePacket(kRequest, 2, "never told"));
    EXPECT_TRUE(own.peer.AwaitClosed());
    EXPECT_EQ(told.Await(1), Lines{"0"});
    EXPECT_EQ(ProcMgr::NexioClosePipe(own.fd), ProcMgr::kNexioBadFd);
  }
  EXPECT_TRUE(Eventually([before] { return DescriptorCount() <= before; }));
  EXPECT_EQ(told.Await(1), Lines{"0"});
}

TEST(NexioRace, CloseAgainstAFloodComesToAnEnd) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> closed = false;
    std::atomic<int> after = 0;
    const RawChannel flood(
        "flood", [&](int, const ProcMgr::NexioRequest*) { after += closed.load() ? 1 : 0; });
    std::thread flooder([&flood] {
      while (flood.peer.Send(MakePacket(kRequest, 1, "water"))) {
      }
    });
    // The first of these may be busy; the channel then closes at the callback's return.
    EXPECT_TRUE(Close(flood.fd));
    closed = true;
    flooder.join();
    EXPECT_EQ(after, 0);
  }
}

TEST(NexioRace, PeerThatDiesAtAnyStageLeavesNothingBehind) {
  const EchoServer server("mortal");
  EXPECT_EQ(Ask(Channel("mortal").fd, "warm up"), "warm up");
  const RawServer rawServer(Box(), "mortal-raw", getgid());
  const std::size_t before = DescriptorCount();
  std::set<int> handles;
  for (int round = 0; round < 100; ++round) {
    // The client's stages: connected, greeted, asked, with its answer unread.
    for (int stage = 0; stage < 4; ++stage) {
      const auto peer = ConnectRaw(Box(), "mortal");
      ASSERT_TRUE(peer.has_value());
      ASSERT_TRUE(stage < 1 || peer->Send(MakePacket(kHello, 0, "mortal")));
      ASSERT_TRUE(stage < 2 || peer->Send(MakePacket(kRequest, 1, "x")));
      ASSERT_TRUE(stage < 3 || peer->Receive().has_value());
      ASSERT_TRUE(stage < 3 || peer->Send(MakePacket(kRequest, 2, "y")));
    }
    // The server's: gone with its last words, accepted, with the hello read.
    for (int stage = 0; stage < 3; ++stage) {
      LineRecorder told;
      const Channel channel("mortal-raw", Into(told));
      EXPECT_TRUE(handles.insert(channel.fd).second) << "a handle is used a second time";
      auto peer = stage >= 2 ? rawServer.AcceptGreeted() : rawServer.Accept();
      ASSERT_TRUE(peer.has_value());
      ASSERT_TRUE(stage > 0 || peer->Send(MakePacket(kRequest, 1, "last words")));
      peer->Close();
      const Lines expected = stage == 0 ? Lines{"last words", "end"} : Lines{"end"};
      EXPECT_EQ(told.Await(expected.size()), expected);
    }
  }
  EXPECT_TRUE(Eventually([before] { return DescriptorCount() <= before; })) << DescriptorCount();
}

TEST(NexioRace, ClosedServerTakesItsConnectionsWithIt) {
  Gate gate;
  ProcMgr::NexioServerParam param;
  param.serverName = "closing";
  param.requestCallback = [&gate](int, const ProcMgr::NexioRequest* request) {
    if (request != nullptr) {
      gate.Pass();
    }
  };
  const int server = ProcMgr::NexioCreateServer(param);
  ASSERT_GE(server, 1);
  LineRecorder toldBusy;
  LineRecorder toldIdle;
  const Channel busy("closing", Into(toldBusy));
  const Channel idle("closing", Into(toldIdle));
  ASSERT_EQ(SendText(busy.fd, "hold"), 0);
  EXPECT_TRUE(gate.AwaitArrivals(1));
  EXPECT_EQ(ProcMgr::NexioClosePipe(server), ProcMgr::kNexioCallback);
  EXPECT_EQ(OpenTo("closing", nullptr, std::chrono::milliseconds(0)), ProcMgr::kNexioTimeout);
  EXPECT_EQ(toldIdle.Await(1), Lines{"end"});
  gate.Open();
  EXPECT_EQ(toldBusy.Await(1), Lines{"end"});
  EXPECT_TRUE(Close(server));
  EXPECT_EQ(ProcMgr::NexioClosePipe(server), ProcMgr::kNexioBadFd);
}

// 40 clients whose callbacks don't return hold every thread that a server may have.
TEST(NexioRace, ClientsOfAServerLeaveOpenedChannelsTheirThreads) {
  constexpr int kClients = 40;
  constexpr int kThreads = 4;
  Gate gate;
  ProcMgr::NexioServerParam param;
  param.serverName = "crowded";
  param.requestCallback = [&gate](int, const ProcMgr::NexioRequest*) { gate.Pass(); };
  const int server = ProcMgr::NexioCreateServer(param);
  std::list<Channel> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back("crowded");
    EXPECT_EQ(SendText(clients.back().fd, "hold"), 0);
  }
  EXPECT_TRUE(gate.AwaitArrivals(kThreads));
  LineRecorder told;
  const RawChannel opened("opened", Into(told));
  opened.Request(1, "heard");
  EXPECT_EQ(told.Await(1), Lines{"heard"});
  gate.Open();
  EXPECT_TRUE(Close(server));
}

// As many channels as there are threads have a slow callback and much to do; another one that has
// something comes soon, not when they are through.
TEST(NexioRace, SlowCallbacksHoldAThreadForASliceOfTimeOnly) {
  constexpr int kBusy = 4;
  constexpr int kPackets = 40;
  constexpr std::int64_t kSlowNs = 3'000'000;
  Gate gate;
  std::atomic<int> done = 0;
  std::list<RawChannel> busy;
  for (int i = 0; i < kBusy; ++i) {
    busy.emplace_back("slow", [&](int, const ProcMgr::NexioRequest* request) {
      if (request != nullptr) {
        gate.Pass();
        ProcMgr::SleepNs(kSlowNs);
        ++done;
      }
    });
    for (int packet = 0; packet < kPackets; ++packet) {
      busy.back().Request(1, "x");
    }
  }
  std::atomic<int> doneBefore = -1;
  const RawChannel quick("quick",
                         [&](int, const ProcMgr::NexioRequest*) { doneBefore = done.load(); });
  EXPECT_TRUE(gate.AwaitArrivals(kBusy));
  quick.Request(1, "x");
  gate.Open();
  EXPECT_TRUE(Eventually([&] { return doneBefore >= 0; }));
  EXPECT_LT(doneBefore, kBusy * kPackets / 4);
  EXPECT_TRUE(Eventually([&] { return done == kBusy * kPackets; }));
}

// A static object that a callback uses; it must not be gone while one runs.
class Canary {
 public:
  ~Canary() { alive_ = false; }
  void Use() const {
    if (!alive_) {
      std::_Exit(66);
    }
  }

 private:
  std::atomic<bool> alive_ = true;
};

// Made before the library starts, so it goes after the library has ended.
const Canary kCanary;

TEST(NexioExitDeathTest, NoCallbackRunsIntoObjectsThatAreGone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        RawChannel channel("exiting", [](int, const ProcMgr::NexioRequest*) { kCanary.Use(); });
        std::thread([peer = std::move(channel.peer)] {
          while (peer.Send(MakePacket(kRequest, 1, "x"))) {
          }
        }).detach();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace PmTest
