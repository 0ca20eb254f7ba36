// The races: opening against the first frame, closing against callbacks, peers that die, floods.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "platform/nexio/nexio_peer.h"
#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

TEST(NexioRace, FrameInTheInstantOfTheOpenIsNeverLost) {
  constexpr int kOpens = 1000;
  const RawServer server(Box(), "instant", getgid());
  std::thread peer([&server] {
    std::vector<RawPeer> kept;
    for (int i = 0; i < kOpens; ++i) {
      auto client = server.Accept();
      ASSERT_TRUE(client.has_value());
      EXPECT_TRUE(client->Send(MakePacket(kRequest, 1, "at once")));
      // Every second one is gone as soon as it has spoken, maybe before our hello.
      if (i % 2 == 0) {
        kept.push_back(std::move(*client));
      }
    }
  });
  for (int i = 0; i < kOpens; ++i) {
    Recorder told;
    const int fd = OpenTo("instant", told.Callback());
    ASSERT_GE(fd, 1);
    const auto events = told.Await(1);
    ASSERT_GE(events.size(), 1U) << "open " << i;
    EXPECT_EQ(events[0].fd, fd);
    EXPECT_EQ(events[0].data, "at once");
    ASSERT_TRUE(Close(fd));
  }
  peer.join();
}

TEST(NexioRace, CloseDuringACallbackIsBusyAndComesTrueWhenItReturns) {
  const RawServer server(Box(), "busy", getgid());
  Gate gate;
  Recorder told;
  const int fd = OpenTo("busy", [&](int handle, const ProcMgr::NexioRequest* request) {
    told.Add(handle, request);
    gate.Pass();
    // Still open for its own callback.
    EXPECT_EQ(SendText(handle, "from within"), 0);
  });
  ASSERT_GE(fd, 1);
  const auto peer = server.AcceptGreeted();
  ASSERT_TRUE(peer.has_value());
  ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, "first")));
  ASSERT_TRUE(peer->Send(MakePacket(kRequest, 2, "never told")));
  ASSERT_TRUE(gate.AwaitArrivals(1));
  EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioCallback);
  EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioCallback);
  gate.Open();
  // Closed without another request; whoever asks again hears so, once.
  EXPECT_TRUE(peer->AwaitClosed());
  EXPECT_TRUE(Close(fd));
  EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioBadFd);
  EXPECT_EQ(told.Await(1).size(), 1U);
}

TEST(NexioRace, CallbackMayCloseItsOwnDescriptor) {
  for (const bool onEnd : {false, true}) {
    const RawServer server(Box(), "own", getgid());
    const std::size_t before = DescriptorCount();
    std::atomic<int> result = 1;
    std::atomic<int> calls = 0;
    const int fd = OpenTo("own", [&](int handle, const ProcMgr::NexioRequest* request) {
      ++calls;
      if ((request == nullptr) == onEnd) {
        result = ProcMgr::NexioClosePipe(handle);
      }
    });
    ASSERT_GE(fd, 1);
    auto peer = server.AcceptGreeted();
    ASSERT_TRUE(peer.has_value());
    if (onEnd) {
      peer->Close();
    } else {
      ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, "close")));
      (void)peer->Send(MakePacket(kRequest, 2, "never told"));
      EXPECT_TRUE(peer->AwaitClosed());
      peer->Close();
    }
    EXPECT_TRUE(Eventually([&result] { return result.load() <= 0; }));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioBadFd);
    EXPECT_TRUE(Eventually([before] { return DescriptorCount() <= before; }));
    EXPECT_EQ(calls, 1);
  }
}

TEST(NexioRace, CloseAgainstAFloodComesToAnEnd) {
  const RawServer server(Box(), "flood", getgid());
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> closed = false;
    std::atomic<int> after = 0;
    const int fd =
        OpenTo("flood", [&](int, const ProcMgr::NexioRequest*) { after += closed.load() ? 1 : 0; });
    ASSERT_GE(fd, 1);
    const auto peer = server.AcceptGreeted();
    ASSERT_TRUE(peer.has_value());
    std::thread flooder([&peer] {
      while (peer->Send(MakePacket(kRequest, 1, "water"))) {
      }
    });
    // The first of these may be busy; the channel then closes at the callback's return.
    EXPECT_TRUE(Close(fd));
    closed = true;
    flooder.join();
    EXPECT_EQ(after, 0);
  }
}

TEST(NexioRace, PeerThatDiesAtAnyStageLeavesNothingBehind) {
  const EchoServer server("mortal");
  EXPECT_EQ(Ask(OpenTo("mortal"), "warm up"), "warm up");
  const RawServer rawServer(Box(), "mortal-raw", getgid());
  const std::size_t before = DescriptorCount();
  for (int round = 0; round < 100; ++round) {
    // The client's stages: connected, greeted, asked, with its answer unread.
    for (int stage = 0; stage < 4; ++stage) {
      auto peer = ConnectRaw(Box(), "mortal");
      ASSERT_TRUE(peer.has_value());
      if (stage >= 1) {
        ASSERT_TRUE(peer->Send(MakePacket(kHello, 0, "mortal")));
      }
      if (stage >= 2) {
        ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, "x")));
      }
      if (stage >= 3) {
        ASSERT_TRUE(peer->Receive().has_value());
        ASSERT_TRUE(peer->Send(MakePacket(kRequest, 2, "y")));
      }
    }
    // The server's: not accepted, accepted, with the hello read.
    for (int stage = 0; stage < 3; ++stage) {
      Recorder told;
      const int fd = OpenTo("mortal-raw", told.Callback());
      ASSERT_GE(fd, 1);
      auto peer = stage >= 2 ? rawServer.AcceptGreeted() : rawServer.Accept();
      ASSERT_TRUE(peer.has_value());
      if (stage == 0) {
        ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, "last words")));
      }
      peer->Close();
      const auto events = told.Await(stage == 0 ? 2 : 1);
      EXPECT_EQ(events.size(), stage == 0 ? 2U : 1U);
      EXPECT_FALSE(events.back().data.has_value());
      ASSERT_TRUE(Close(fd));
    }
  }
  EXPECT_TRUE(Eventually([before] { return DescriptorCount() <= before; })) << DescriptorCount();
}

TEST(NexioRace, FloodsOfEightChannelsKeepTheirOrder) {
  constexpr int kChannels = 8;
  constexpr int kFrames = 3000;
  struct Stream {
    std::uint32_t next = 0;
    bool running = false;
    bool inOrder = true;
  };
  std::mutex mutex;
  std::map<int, Stream> streams;
  std::atomic<int> received = 0;
  const EchoServer server("streams", [&](int fd, const ProcMgr::NexioRequest* request) {
    if (request == nullptr) {
      EchoServer::Echo(fd, request);
      return;
    }
    Stream* stream = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      stream = &streams[fd];
    }
    // Without a lock on purpose: one descriptor's callbacks come one at a time.
    const bool alone = !std::exchange(stream->running, true);
    std::uint32_t number = 0;
    std::memcpy(&number, request->data, sizeof(number));
    stream->inOrder = stream->inOrder && alone && request->size == 3984 && number == stream->next;
    ++stream->next;
    stream->running = false;
    ++received;
  });
  std::vector<std::thread> senders;
  std::vector<int> fds;
  for (int i = 0; i < kChannels; ++i) {
    fds.push_back(OpenTo("streams"));
    ASSERT_GE(fds.back(), 1);
    senders.emplace_back([fd = fds.back()] {
      std::string frame(3984, 'x');
      for (std::uint32_t number = 0; number < kFrames; ++number) {
        std::memcpy(frame.data(), &number, sizeof(number));
        int result = 0;
        while ((result = SendText(fd, frame)) == ProcMgr::kNexioBusy) {
          ASSERT_EQ(ProcMgr::NexioAwaitRoom(fd, 60'000), 0);
        }
        ASSERT_EQ(result, 0);
      }
    });
  }
  for (std::thread& sender : senders) {
    sender.join();
  }
  EXPECT_TRUE(Eventually([&received] { return received == kChannels * kFrames; })) << received;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(streams.size(), static_cast<std::size_t>(kChannels));
    for (const auto& [fd, stream] : streams) {
      EXPECT_TRUE(stream.inOrder) << fd;
      EXPECT_EQ(stream.next, static_cast<std::uint32_t>(kFrames)) << fd;
    }
  }
  for (const int fd : fds) {
    EXPECT_TRUE(Close(fd));
  }
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
  Recorder toldBusy;
  Recorder toldIdle;
  const int busy = OpenTo("closing", toldBusy.Callback());
  const int idle = OpenTo("closing", toldIdle.Callback());
  ASSERT_EQ(SendText(busy, "hold"), 0);
  ASSERT_TRUE(gate.AwaitArrivals(1));
  EXPECT_EQ(ProcMgr::NexioClosePipe(server), ProcMgr::kNexioCallback);
  EXPECT_EQ(OpenTo("closing", nullptr, std::chrono::milliseconds(0)), ProcMgr::kNexioTimeout);
  EXPECT_EQ(toldIdle.Await(1).size(), 1U);
  gate.Open();
  EXPECT_EQ(toldBusy.Await(1).size(), 1U);
  EXPECT_TRUE(Close(server));
  EXPECT_EQ(ProcMgr::NexioClosePipe(server), ProcMgr::kNexioBadFd);
  EXPECT_TRUE(Close(busy));
  EXPECT_TRUE(Close(idle));
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
        const RawServer server(Box(), "exiting", getgid());
        const int fd = OpenTo("exiting", [](int, const ProcMgr::NexioRequest*) { kCanary.Use(); });
        auto peer = server.AcceptGreeted();
        std::thread([peer = std::move(*peer)] {
          while (peer.Send(MakePacket(kRequest, 1, "x"))) {
          }
        }).detach();
        std::exit(fd >= 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace PmTest
