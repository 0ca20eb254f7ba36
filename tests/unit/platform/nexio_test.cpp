// The promises of message/nexio.h, with the library at both ends.
#include "message/nexio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "core/sleep.h"
#include "core/small_file.h"
#include "message/nexio_wrappers.h"
#include "platform/nexio/nexio_peer.h"
#include "tests/support/process_table.h"
#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

using namespace std::chrono_literals;

TEST(Nexio, ResultsSayWhatIsWrong) {
  EXPECT_EQ(OpenTo("no/name"), ProcMgr::kNexioBadName);
  EXPECT_EQ(OpenTo(".hidden"), ProcMgr::kNexioBadName);
  EXPECT_EQ(OpenTo("nobody", nullptr, 0ms), ProcMgr::kNexioTimeout);
  EXPECT_EQ(OpenTo("nobody", nullptr, 20ms), ProcMgr::kNexioTimeout);
  EXPECT_EQ(SendText(1 << 30, "x"), ProcMgr::kNexioBadFd);
  EXPECT_EQ(Ask(-1, "x"), "error -9");
  EXPECT_EQ(ProcMgr::NexioClosePipe(0), ProcMgr::kNexioBadFd);
  ProcMgr::NexioServerParam nameless;
  EXPECT_EQ(ProcMgr::NexioCreateServer(nameless), ProcMgr::kNexioBadName);

  const RawServer stranger(Box(), "stranger", 4711);
  EXPECT_EQ(OpenTo("stranger"), ProcMgr::kNexioDenied);

  const EchoServer server("results");
  const int fd = OpenTo("results");
  ASSERT_GE(fd, 1);
  EXPECT_EQ(SendText(fd, std::string(65537, 'x')), ProcMgr::kNexioTooLong);
  EXPECT_EQ(Ask(fd, std::string(65536, 'y')), std::string(65536, 'y'));
  EXPECT_EQ(Ask(fd, ""), "");
  EXPECT_TRUE(Close(fd));
  EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioBadFd);
  EXPECT_EQ(SendText(fd, "x"), ProcMgr::kNexioBadFd);
}

TEST(Nexio, HandlesAreNeverUsedASecondTime) {
  const EchoServer server("handles");
  std::set<int> seen;
  for (int i = 0; i < 50; ++i) {
    const int fd = OpenTo("handles");
    ASSERT_GE(fd, 1);
    EXPECT_TRUE(seen.insert(fd).second) << fd;
    ASSERT_EQ(ProcMgr::NexioClosePipe(fd), 0);
  }
}

TEST(Nexio, OneOfManyServersGetsTheName) {
  constexpr int kServers = 8;
  for (int round = 0; round < 50; ++round) {
    {
      // Leaves a socket file behind that nobody serves.
      const RawServer stale(Box(), "wanted", getgid());
    }
    std::atomic<int> served = 0;
    std::atomic<int> refused = 0;
    std::atomic<int> winner = 0;
    std::vector<std::thread> rivals;
    rivals.reserve(kServers);
    for (int i = 0; i < kServers; ++i) {
      rivals.emplace_back([&] {
        ProcMgr::NexioServerParam param;
        param.serverName = "wanted";
        const int result = ProcMgr::NexioCreateServer(param);
        if (result >= 1) {
          ++served;
          winner = result;
        } else if (result == -EADDRINUSE) {
          ++refused;
        }
      });
    }
    for (std::thread& rival : rivals) {
      rival.join();
    }
    EXPECT_EQ(served, 1);
    EXPECT_EQ(refused, kServers - 1);
    EXPECT_TRUE(Close(winner));
    EXPECT_NE(access("/run/nexio/wanted.sock", F_OK), 0);
  }
}

TEST(Nexio, ServersFilesHaveTheirModes) {
  const mode_t before = umask(077);
  const EchoServer server("modes");
  (void)umask(before);
  struct stat status {};
  ASSERT_EQ(stat("/run/nexio/modes.sock", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0666U);
  ASSERT_EQ(stat("/run/nexio", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 01777U);
}

TEST(Nexio, FileThatIsNoSocketIsLeftAlone) {
  Box().WriteFile("/run/nexio/plain.sock", "somebody's");
  ProcMgr::NexioServerParam param;
  param.serverName = "plain";
  EXPECT_EQ(ProcMgr::NexioCreateServer(param), -EADDRINUSE);
  EXPECT_EQ(Box().ReadFile("/run/nexio/plain.sock"), "somebody's");
}

// Each way in which a peer can be late. `arrive` makes it come and yields what keeps it there.
TEST(Nexio, PeerThatComesLaterIsFound) {
  struct Case {
    const char* name;
    std::function<void()> before;
    std::function<void(std::unique_ptr<RawServer>&)> arrive;
  };
  const auto appear = [](std::unique_ptr<RawServer>& server) {
    server = std::make_unique<RawServer>(Box(), "late", getgid());
  };
  const Case cases[] = {
      {"nothing there", [] {}, appear},
      {"no directory", [] { std::filesystem::remove_all("/run/nexio"); }, appear},
      {"stale file", [] { const RawServer stale(Box(), "late", getgid()); }, appear},
      {"directory replaced", [] {},
       [&appear](std::unique_ptr<RawServer>& server) {
         std::filesystem::rename("/run/nexio", "/run/nexio.old");
         appear(server);
         std::filesystem::remove_all("/run/nexio.old");
       }},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    std::filesystem::remove("/run/nexio/late.sock");
    each.before();
    std::unique_ptr<RawServer> server;
    std::atomic<int> fd = 0;
    std::thread opener([&fd] { fd = OpenTo("late"); });
    // A moment for the opener to find nothing; whichever comes first, it must find the peer.
    ProcMgr::SleepNs(5'000'000);
    each.arrive(server);
    opener.join();
    EXPECT_GE(fd, 1);
    EXPECT_TRUE(Close(fd));
  }
}

TEST(Nexio, SocketThatBeginsToListenIsFound) {
  const ProcMgr::UniqueFd socketFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const EchoServer directoryMaker("maker");
  sockaddr_un address{AF_UNIX, "/run/nexio/slow.sock"};
  ASSERT_EQ(bind(socketFd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  std::atomic<int> fd = 0;
  std::thread opener([&fd] { fd = OpenTo("slow"); });
  ProcMgr::SleepNs(5'000'000);
  ASSERT_EQ(listen(socketFd.Get(), 5), 0);
  opener.join();
  EXPECT_GE(fd, 1);
  EXPECT_TRUE(Close(fd));
}

TEST(Nexio, PeerThatDoesNotReadCostsOnlyABusyResult) {
  const RawServer server(Box(), "deaf", getgid());
  const int fd = OpenTo("deaf");
  ASSERT_GE(fd, 1);
  auto peer = server.AcceptGreeted();
  ASSERT_TRUE(peer.has_value());
  const std::string frame(3984, 'x');
  int result = 0;
  int sent = 0;
  while ((result = SendText(fd, frame)) == 0) {
    ASSERT_LT(++sent, 100'000);
  }
  EXPECT_EQ(result, ProcMgr::kNexioBusy);
  EXPECT_GE(sent, 8);
  EXPECT_EQ(Ask(fd, frame), "error -11");
  EXPECT_EQ(ProcMgr::NexioAwaitRoom(fd, 1), ProcMgr::kNexioTimeout);
  // The wrapper tries until there is room.
  std::thread reader([&peer, sent] {
    for (int i = 0; i <= sent; ++i) {
      EXPECT_TRUE(peer->Receive().has_value());
    }
  });
  ProcMgr::NexioRequest request;
  request.data = frame.data();
  request.size = static_cast<std::uint32_t>(frame.size());
  EXPECT_EQ(ProcMgr::ProcMgrNexioSendRequest(fd, request), 0);
  reader.join();
  EXPECT_EQ(ProcMgr::NexioAwaitRoom(fd, 1000), 0);
  peer->Close();
  EXPECT_TRUE(Eventually([fd] { return SendText(fd, "x") == ProcMgr::kNexioBroken; }));
  ProcMgr::ProcMgrNexioClosePipe(fd);
  EXPECT_EQ(ProcMgr::NexioClosePipe(fd), ProcMgr::kNexioBadFd);
}

TEST(Nexio, CallWithALimitGivesUpAndTheChannelGoesOn) {
  const RawServer server(Box(), "slow-answer", getgid());
  const int fd = OpenTo("slow-answer");
  ASSERT_GE(fd, 1);
  const auto peer = server.AcceptGreeted();
  ASSERT_TRUE(peer.has_value());
  char buffer[4] = "abc";
  ProcMgr::NexioResponse response;
  response.data = buffer;
  response.size = sizeof(buffer);
  EXPECT_EQ(ProcMgr::NexioTimedRPCSync(fd, {}, response, 10), ProcMgr::kNexioTimeout);
  EXPECT_STREQ(buffer, "abc");
  const auto late = peer->Receive();
  ASSERT_TRUE(late.has_value());
  ASSERT_TRUE(peer->Send(MakePacket(kResponse, late->sequence, "late")));

  // The late answer isn't taken for that of the next question.
  std::thread answerer([&peer] {
    const auto request = peer->Receive();
    ASSERT_TRUE(request.has_value());
    EXPECT_TRUE(peer->Send(MakePacket(kResponse, request->sequence, "12345")));
  });
  EXPECT_EQ(ProcMgr::NexioRPCSync(fd, {}, response), ProcMgr::kNexioTooLong);
  EXPECT_EQ(response.size, 5U);
  EXPECT_STREQ(buffer, "abc");
  answerer.join();
  EXPECT_TRUE(Close(fd));
}

TEST(Nexio, WaitingCallEndsWithItsChannel) {
  for (const bool closedHere : {true, false}) {
    const RawServer server(Box(), "going", getgid());
    const int fd = OpenTo("going");
    ASSERT_GE(fd, 1);
    auto peer = server.AcceptGreeted();
    ASSERT_TRUE(peer.has_value());
    std::string result;
    std::thread asker([fd, &result] { result = Ask(fd, "x"); });
    ASSERT_TRUE(peer->Receive().has_value());
    if (closedHere) {
      EXPECT_TRUE(Close(fd));
    } else {
      peer->Close();
    }
    asker.join();
    EXPECT_EQ(result, closedHere ? "error -9" : "error -32");
    EXPECT_EQ(Close(fd), !closedHere);
  }
}

TEST(Nexio, CallsOfManyThreadsGetTheirOwnAnswers) {
  const EchoServer server("shared");
  std::atomic<int> pushed = 0;
  const int fd = OpenTo("shared", [&pushed](int, const ProcMgr::NexioRequest* request) {
    pushed += request != nullptr ? 1 : 0;
  });
  ASSERT_GE(fd, 1);
  constexpr int kAskers = 6;
  std::vector<std::thread> askers;
  askers.reserve(kAskers);
  for (int thread = 0; thread < kAskers; ++thread) {
    askers.emplace_back([fd, thread] {
      for (int i = 0; i < 200; ++i) {
        const std::string question = std::to_string(thread) + ":" + std::to_string(i);
        EXPECT_EQ(Ask(fd, question), question);
      }
    });
  }
  for (std::thread& asker : askers) {
    asker.join();
  }
  EXPECT_TRUE(Close(fd));
}

TEST(Nexio, CallNeedsNoThreadOfTheLibrary) {
  // All four threads stand in callbacks of other channels, and each of them asks as well; requests
  // that come before the answers wait and keep their order.
  const RawServer server(Box(), "asker-peer", getgid());
  constexpr int kChannels = 4;
  Gate gate;
  Recorder told;
  std::vector<RawPeer> peers;
  std::vector<int> fds;
  for (int i = 0; i < kChannels; ++i) {
    fds.push_back(OpenTo("asker-peer", [&](int fd, const ProcMgr::NexioRequest* request) {
      if (request != nullptr && request->seq == 1) {
        gate.Pass();
        EXPECT_EQ(Ask(fd, "within"), "answer");
      }
      told.Add(fd, request);
    }));
    ASSERT_GE(fds.back(), 1);
    peers.push_back(std::move(*server.AcceptGreeted()));
    ASSERT_TRUE(peers.back().Send(MakePacket(kRequest, 1, "first")));
  }
  ASSERT_TRUE(gate.AwaitArrivals(kChannels));
  gate.Open();
  for (const RawPeer& peer : peers) {
    const auto question = peer.Receive();
    ASSERT_TRUE(question.has_value());
    EXPECT_TRUE(peer.Send(MakePacket(kRequest, 2, "second")));
    EXPECT_TRUE(peer.Send(MakePacket(kRequest, 3, "third")));
    EXPECT_TRUE(peer.Send(MakePacket(kResponse, question->sequence, "answer")));
  }
  std::map<int, std::string> order;
  for (const auto& event : told.Await(std::size_t{3} * kChannels)) {
    order[event.fd] += event.data.value_or("end") + " ";
  }
  for (const int fd : fds) {
    EXPECT_EQ(order[fd], "first second third ");
    EXPECT_TRUE(Close(fd));
  }
}

TEST(Nexio, ServerLetsInWhomItsFilterWantsAndNoMoreThanItHolds) {
  ProcMgr::NexioServerParam param;
  param.serverName = "choosy";
  param.maxClients = 1;
  ProcMgr::NexioPeer seen;
  param.requestCallback = [&seen](int fd, const ProcMgr::NexioRequest* request) {
    if (request != nullptr) {
      EXPECT_EQ(ProcMgr::NexioGetPeer(fd, seen), 0);
    }
    EchoServer::Echo(fd, request);
  };
  std::atomic<bool> welcome = false;
  const int server = ProcMgr::NexioCreateFilteredServer(
      param, [&welcome](const ProcMgr::NexioPeer&) { return welcome.load(); });
  ASSERT_GE(server, 1);
  const int refused = OpenTo("choosy");
  ASSERT_GE(refused, 1);
  EXPECT_EQ(Ask(refused, "x"), "error -32");
  EXPECT_TRUE(Close(refused));
  EXPECT_TRUE(Log().WaitFor("server choosy refused a client").has_value());

  welcome = true;
  const int first = OpenTo("choosy");
  ASSERT_GE(first, 1);
  EXPECT_EQ(Ask(first, "x"), "x");
  EXPECT_EQ(seen.pid, getpid());
  EXPECT_EQ(seen.uid, getuid());
  EXPECT_EQ(seen.gid, getgid());
  ProcMgr::NexioPeer peer;
  EXPECT_EQ(ProcMgr::NexioGetPeer(first, peer), 0);
  EXPECT_EQ(peer.pid, getpid());

  const int second = OpenTo("choosy");
  ASSERT_GE(second, 1);
  EXPECT_EQ(Ask(second, "x"), "error -32");
  EXPECT_TRUE(Close(second));
  EXPECT_TRUE(Log().WaitFor("server choosy is full").has_value());
  // The place is free again once the first has gone.
  EXPECT_TRUE(Close(first));
  EXPECT_TRUE(Eventually([] {
    const int third = OpenTo("choosy");
    const bool served = Ask(third, "x") == "x";
    EXPECT_TRUE(Close(third));
    return served;
  }));
  EXPECT_TRUE(Close(server));
}

TEST(Nexio, ThreadsAreFourAndTakeNoSignals) {
  const EchoServer server("threads");
  const auto blocked = [] {
    std::vector<std::string> statuses;
    for (const pid_t tid : Threads(getpid())) {
      const std::string folder = "/proc/self/task/" + std::to_string(tid);
      std::string name;
      std::string status;
      EXPECT_EQ(ProcMgr::ReadSmallFile(folder + "/comm", 64, name), 0);
      EXPECT_EQ(ProcMgr::ReadSmallFile(folder + "/status", 1 << 16, status), 0);
      if (name.starts_with("nexio-")) {
        statuses.push_back(status);
      }
    }
    return statuses;
  };
  // All but SIGKILL, SIGSTOP and the two that the C library keeps for itself.
  const auto areAllBlocked = testing::AllOf(
      testing::SizeIs(4), testing::Each(testing::HasSubstr("SigBlk:\tfffffffe7ffbfeff")));
  // A thread gets its name from its maker, and until it first runs the library blocks its own two
  // as well.
  (void)Eventually([&] { return testing::Value(blocked(), areAllBlocked); });
  EXPECT_THAT(blocked(), areAllBlocked);
}

TEST(Nexio, DescriptorsAreCloseOnExec) {
  const EchoServer server("inherit");
  const int fd = OpenTo("inherit");
  ASSERT_GE(fd, 1);
  EXPECT_EQ(Ask(fd, "x"), "x");
  EXPECT_THAT(LeakyDescriptors(), testing::IsEmpty());
  EXPECT_TRUE(Close(fd));
}

}  // namespace
}  // namespace PmTest
