// The promises of message/nexio.h, with the library at both ends.
#include "message/nexio.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <list>
#include <optional>
#include <thread>

#include "base/sleep.h"
#include "base/unix_address.h"
#include "message/nexio_wrappers.h"
#include "platform/nexio/arrival_watch.h"
#include "platform/nexio/nexio_peer.h"
#include "sandbox/process_table.h"
#include "sandbox/wait.h"
#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

using namespace std::chrono_literals;

int Serve(const char* name) {
  ProcMgr::NexioServerParam param;
  param.serverName = name;
  return ProcMgr::NexioCreateServer(param);
}

TEST(Nexio, ResultsSayWhatIsWrong) {
  EXPECT_EQ(OpenTo("no/name"), ProcMgr::kNexioBadName);
  EXPECT_EQ(OpenTo("nobody", nullptr, 20ms), ProcMgr::kNexioTimeout);
  EXPECT_EQ(SendText(1 << 30, "x"), ProcMgr::kNexioBadFd);
  EXPECT_EQ(Ask(-1, "x"), "error -9");
  EXPECT_EQ(ProcMgr::NexioClosePipe(0), ProcMgr::kNexioBadFd);
  EXPECT_EQ(Serve(nullptr), ProcMgr::kNexioBadName);
  const RawServer stranger(Box(), "stranger", 4711);
  EXPECT_EQ(OpenTo("stranger"), ProcMgr::kNexioDenied);

  const EchoServer server("results");
  const Channel channel("results");
  EXPECT_EQ(SendText(channel.fd, std::string(65537, 'x')), ProcMgr::kNexioTooLong);
  EXPECT_EQ(Ask(channel.fd, std::string(65536, 'y')), std::string(65536, 'y'));
  EXPECT_EQ(Ask(channel.fd, ""), "");
  EXPECT_TRUE(Close(channel.fd));
  EXPECT_EQ(ProcMgr::NexioClosePipe(channel.fd), ProcMgr::kNexioBadFd);
  EXPECT_EQ(SendText(channel.fd, "x"), ProcMgr::kNexioBadFd);
}

TEST(Nexio, OneOfManyServersGetsTheName) {
  constexpr int kServers = 8;
  for (int round = 0; round < 50; ++round) {
    {
      // Leaves a socket file behind that nobody serves.
      const RawServer stale(Box(), "wanted", getgid());
    }
    std::array<int, kServers> results{};
    OnThreads(kServers, [&](int i) { results.at(static_cast<std::size_t>(i)) = Serve("wanted"); });
    EXPECT_EQ(std::count(results.begin(), results.end(), -EADDRINUSE), kServers - 1);
    EXPECT_TRUE(Close(*std::max_element(results.begin(), results.end())));
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

// Whatever somebody has put there, and without a look behind a link.
TEST(Nexio, RootServesANameWhateverStandsThere) {
  const EchoServer victim("victim");
  const std::string path = "/run/nexio/taken.sock";
  const auto give = [&path] { EXPECT_EQ(lchown(path.c_str(), 65534, 65534), 0); };
  std::optional<RawServer> squatter;
  const struct {
    const char* name;
    std::function<void()> put;
    int expected;  // 1: a handle.
  } cases[] = {
      {"file", [&] { Box().WriteFile(path, "x"); }, 1},
      {"link to a socket", [&] { std::filesystem::create_symlink("victim.sock", path); }, 1},
      {"link to nothing", [&] { std::filesystem::create_symlink("nothing", path); }, 1},
      {"directory", [&] { std::filesystem::create_directory(path); }, 1},
      {"directory with content", [&] { Box().WriteFile(path + "/a/b", "x"); }, 1},
      {"stale socket of another user",
       [&] {
         const RawServer stale(Box(), "taken", 65534);
         give();
       },
       1},
      {"stranger who serves it",
       [&] {
         squatter.emplace(Box(), "taken", 65534);
         give();
       },
       1},
      {"one of our own who serves it", [&] { squatter.emplace(Box(), "taken", getgid()); },
       -EADDRINUSE},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    each.put();
    const int server = Serve("taken");
    EXPECT_EQ(std::min(server, 1), each.expected);
    if (server > 0) {
      EXPECT_TRUE(std::filesystem::is_socket(std::filesystem::symlink_status(path)));
      EXPECT_TRUE(Close(server));
    }
    EXPECT_EQ(Ask(Channel("victim").fd, "untouched"), "untouched");
    std::filesystem::remove(path);
  }
}

// What is cleared away before a service of user 1234 and group 1235 is started.
TEST(Nexio, NameIsClearedOfWhatItsServiceCantReplace) {
  constexpr uid_t kUser = 1234;
  constexpr gid_t kGroup = 1235;
  const EchoServer victim("victim");
  const std::string path = "/run/nexio/cleared.sock";
  std::optional<RawServer> server;
  const auto serve = [&](gid_t listener, uid_t uid, gid_t gid) {
    server.emplace(Box(), "cleared", listener);
    EXPECT_EQ(lchown(path.c_str(), uid, gid), 0);
  };
  const struct {
    const char* name;
    std::function<void()> put;
    bool isLeft;
    std::string line;  // A part of what is told.
  } cases[] = {
      {"nothing", [] {}, false, ""},
      {"file", [&] { Box().WriteFile(path, "x"); }, false, "pid=-1, uid=0, gid=0"},
      {"link", [&] { std::filesystem::create_symlink("victim.sock", path); }, false, "pid=-1"},
      {"directory", [&] { Box().WriteFile(path + "/a/b", "x"); }, false, "pid=-1"},
      {"its own stale socket",
       [&] {
         serve(kGroup, kUser, kGroup);
         server.reset();
       },
       true, ""},
      {"stale socket of its former user",
       [&] {
         serve(kGroup, 4711, kGroup);
         server.reset();
       },
       false, "pid=-1, uid=4711, gid=1235"},
      {"second name of another socket of its user",
       [&] {
         serve(kGroup, kUser, kGroup);
         std::filesystem::create_hard_link(path, "/run/nexio/other.sock");
       },
       false, "pid=-1, uid=1234, gid=1235"},
      {"its own orphan", [&] { serve(kGroup, kUser, kGroup); }, true, ""},
      {"its orphan of a former user", [&] { serve(kGroup, 4711, kGroup); }, true, ""},
      // The group of the file is anybody's choice who belongs to it, the listener's isn't.
      {"stranger", [&] { serve(4711, 65534, kGroup); }, false,
       "pid=" + std::to_string(getpid()) + ", uid=0, gid=4711"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    each.put();
    const std::size_t told = Log().Lines().size();
    EXPECT_EQ(ProcMgr::NexioClearName("cleared", kUser, kGroup), 0);
    EXPECT_EQ(std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found,
              each.isLeft);
    if (!each.line.empty()) {
      EXPECT_TRUE(Log().WaitFor(
          "cleared.sock stood in a service's way and is removed, " + each.line, told));
    }
    EXPECT_EQ(Ask(Channel("victim").fd, "untouched"), "untouched");
    std::filesystem::remove(path);
    std::filesystem::remove("/run/nexio/other.sock");
  }
  EXPECT_EQ(ProcMgr::NexioClearName("no/name", kUser, kGroup), ProcMgr::kNexioBadName);
}

// A server with more clients than it takes can't be asked and is taken for what its file says.
TEST(Nexio, ClearingANameWaitsForNobody) {
  const std::string path = "/run/nexio/full.sock";
  const ProcMgr::UniqueFd server(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const ProcMgr::UnixAddress address(path);
  ASSERT_EQ(bind(server.Get(), address.Get(), address.Size()), 0);
  ASSERT_EQ(listen(server.Get(), 0), 0);
  ASSERT_EQ(lchown(path.c_str(), 4711, 1235), 0);
  const std::optional<RawPeer> first = ConnectRaw(Box(), "full");
  EXPECT_EQ(ProcMgr::NexioClearName("full", 1234, 1235), 0);
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(ProcMgr::NexioClearName("full", 1234, 1236), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
}

// Each way in which a peer can be late.
TEST(Nexio, PeerThatComesLaterIsFound) {
  std::optional<RawServer> server;
  ProcMgr::UniqueFd bound;
  const std::function<void()> appear = [&] { server.emplace(Box(), "late", getgid()); };
  const auto bindAlone = [&bound] {
    bound.Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const ProcMgr::UnixAddress address("/run/nexio/late.sock");
    EXPECT_EQ(bind(bound.Get(), address.Get(), address.Size()), 0);
  };
  const struct {
    const char* name;
    std::function<void()> before;
    std::function<void()> arrive;
  } cases[] = {
      {"nothing there", [] {}, appear},
      {"no directory", [] { std::filesystem::remove_all("/run/nexio"); }, appear},
      {"stale file", [] { const RawServer stale(Box(), "late", getgid()); }, appear},
      {"directory replaced", [] {},
       [&appear] {
         std::filesystem::rename("/run/nexio", "/run/nexio.old");
         appear();
         std::filesystem::remove_all("/run/nexio.old");
       }},
      {"not listening yet", bindAlone, [&bound] { EXPECT_EQ(listen(bound.Get(), 5), 0); }},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    server.reset();
    std::filesystem::remove("/run/nexio/late.sock");
    each.before();
    std::atomic<int> fd = 0;
    std::thread opener([&fd] { fd = OpenTo("late"); });
    // A moment for the opener to find nothing; whichever comes first, it must find the peer.
    ProcMgr::SleepNs(5'000'000);
    each.arrive();
    opener.join();
    EXPECT_GE(fd, 1);
    EXPECT_TRUE(Close(fd));
  }
}

// Where all services come back at once, each of those who wait would try anew for each of them.
TEST(Nexio, WhoeverWaitsForAPeerIsLeftAloneByOthers) {
  const std::string folder = "/run/nexio/";
  const EchoServer other("other");  // Makes the directory.
  ProcMgr::Nexio::ArrivalWatch watch("awaited.sock");
  watch.Refresh();
  const auto wait = [&](std::chrono::milliseconds most, const std::string& file) {
    std::jthread later([&] {
      ProcMgr::SleepNs(20'000'000);
      Box().WriteFile(folder + file, "");
    });
    const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
    watch.Wait(begin + most);
    return ProcMgr::SteadyNow() - begin;
  };
  EXPECT_GE(wait(100ms, "stranger.sock"), 100ms);
  EXPECT_LT(wait(PmSandbox::kPatience, "awaited.sock"), PmSandbox::kPatience);
}

TEST(Nexio, PeerThatDoesNotReadCostsOnlyABusyResult) {
  RawChannel deaf("deaf");
  const std::string frame(3984, 'x');
  int result = 0;
  int sent = 0;
  while ((result = SendText(deaf.fd, frame)) == 0) {
    ASSERT_LT(++sent, 100'000);
  }
  EXPECT_EQ(result, ProcMgr::kNexioBusy);
  EXPECT_GE(sent, 8);
  EXPECT_EQ(Ask(deaf.fd, frame), "error -11");
  EXPECT_EQ(ProcMgr::NexioAwaitRoom(deaf.fd, 1), ProcMgr::kNexioTimeout);
  // The wrapper tries until there is room.
  std::thread reader([&deaf, sent] {
    for (int i = 0; i <= sent; ++i) {
      EXPECT_TRUE(deaf.peer.Receive().has_value());
    }
  });
  EXPECT_EQ(ProcMgr::ProcMgrNexioSendRequest(deaf.fd, RequestOf(frame)), 0);
  reader.join();
  EXPECT_EQ(ProcMgr::NexioAwaitRoom(deaf.fd, 1000), 0);
  deaf.peer.Close();
  EXPECT_TRUE(Eventually([&] { return SendText(deaf.fd, "x") == ProcMgr::kNexioBroken; }));
  ProcMgr::ProcMgrNexioClosePipe(deaf.fd);
  EXPECT_EQ(ProcMgr::NexioClosePipe(deaf.fd), ProcMgr::kNexioBadFd);
}

TEST(Nexio, CallWithALimitGivesUpAndTheChannelGoesOn) {
  const RawChannel slow("slow-answer");
  char buffer[4] = "abc";
  ProcMgr::NexioResponse response;
  response.data = buffer;
  response.size = sizeof(buffer);
  EXPECT_EQ(ProcMgr::NexioTimedRPCSync(slow.fd, {}, response, 10), ProcMgr::kNexioTimeout);
  // The late answer isn't taken for that of the next question.
  std::thread answerer([&slow] {
    for (const char* const answer : {"late", "12345"}) {
      const auto request = slow.peer.Receive();
      ASSERT_TRUE(request.has_value());
      EXPECT_TRUE(slow.peer.Send(MakePacket(kResponse, request->sequence, answer)));
    }
  });
  EXPECT_EQ(ProcMgr::NexioRPCSync(slow.fd, {}, response), ProcMgr::kNexioTooLong);
  EXPECT_EQ(response.size, 5U);
  EXPECT_STREQ(buffer, "abc");
  answerer.join();
}

TEST(Nexio, WaitingCallEndsWhenItsChannelIsClosed) {
  const RawChannel going("going");
  std::thread asker([&going] { EXPECT_EQ(Ask(going.fd, "x"), "error -9"); });
  EXPECT_TRUE(going.peer.Receive().has_value());
  EXPECT_TRUE(Close(going.fd));
  asker.join();
}

TEST(Nexio, CallsOfManyThreadsGetTheirOwnAnswers) {
  const EchoServer server("shared");
  const Channel channel("shared");
  OnThreads(6, [&channel](int thread) {
    for (int i = 0; i < 200; ++i) {
      const std::string question = std::to_string(thread) + ":" + std::to_string(i);
      EXPECT_EQ(Ask(channel.fd, question), question);
    }
  });
}

// All four threads stand in callbacks of other channels, and each of them asks as well; requests
// that come before the answers wait and keep their order.
TEST(Nexio, CallNeedsNoThreadOfTheLibrary) {
  Gate gate;
  std::array<LineRecorder, 4> told;
  std::list<RawChannel> channels;
  for (LineRecorder& each : told) {
    channels.emplace_back("asker-peer", [&](int fd, const ProcMgr::NexioRequest* request) {
      if (request != nullptr && request->seq == 1) {
        gate.Pass();
        EXPECT_EQ(Ask(fd, "within"), "answer");
      }
      Into(each)(fd, request);
    });
    channels.back().Request(1, "first");
  }
  EXPECT_TRUE(gate.AwaitArrivals(static_cast<int>(told.size())));
  gate.Open();
  for (const RawChannel& channel : channels) {
    const auto question = channel.peer.Receive();
    ASSERT_TRUE(question.has_value());
    channel.Request(2, "second");
    channel.Request(3, "third");
    EXPECT_TRUE(channel.peer.Send(MakePacket(kResponse, question->sequence, "answer")));
  }
  for (const LineRecorder& each : told) {
    EXPECT_EQ(each.Await(3), (Lines{"first", "second", "third"}));
  }
}

TEST(Nexio, DescriptorsAreCloseOnExec) {
  const EchoServer server("inherit");
  const Channel channel("inherit");
  EXPECT_EQ(Ask(channel.fd, "x"), "x");
  for (const std::string& entry : OpenDescriptors(getpid())) {
    const int flags = fcntl(std::stoi(entry), F_GETFD);
    // The one that read the folder has gone.
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
      EXPECT_THAT(InheritedDescriptors(), testing::Contains(entry));
    }
  }
}

}  // namespace
}  // namespace PmTest
