// Beats as the manager's heartbeat socket gets them, and the thread that sends them.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "agent/process_manager_agent.h"
#include "core/unique_fd.h"
#include "tests/support/socket_path.h"
#include "tests/support/system_error.h"
#include "tests/unit/agent/fake_manager.h"

namespace PmTest {
namespace {

using ProcMgr::Result;
using std::chrono::milliseconds;

// The manager's side: one datagram at a time, with its sender as the kernel knows it.
class BeatReceiver {
 public:
  explicit BeatReceiver(const Sandbox& sandbox)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string path = sandbox.Outside("/run/heartbeat.sock");
    std::filesystem::remove(path);
    const SocketPath address(path);
    const int on = 1;
    CheckStep(setsockopt(fd_.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) == 0 &&
                  bind(fd_.Get(), address.Get(), address.Size()) == 0,
              "listen for beats");
  }

  struct Beat {
    std::string name;
    ucred sender{};
  };

  [[nodiscard]] std::optional<Beat> Receive(milliseconds patience = kPatience) const {
    pollfd ready{fd_.Get(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(patience.count())) != 1) {
      return std::nullopt;
    }
    std::array<char, 128> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec part{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(fd_.Get(), &message, 0);
    const cmsghdr* const head = CMSG_FIRSTHDR(&message);
    if (size < 0 || head == nullptr || head->cmsg_type != SCM_CREDENTIALS) {
      return std::nullopt;
    }
    Beat beat;
    beat.name.assign(text.data(), static_cast<std::size_t>(size));
    std::memcpy(&beat.sender, CMSG_DATA(head), sizeof(beat.sender));
    return beat;
  }

 private:
  ProcMgr::UniqueFd fd_;
};

using AgentHeartbeat = AgentTest;

TEST_F(AgentHeartbeat, ABeatIsTheNameAndFindsAReceiverThatComesBack) {
  const auto agent = MakeAgent();
  EXPECT_EQ(agent->Beat(), Result::kNoReceiver);
  for (int round = 0; round < 2; ++round) {
    const BeatReceiver receiver(sandbox_);
    ASSERT_EQ(agent->Beat(), Result::kOk);
    const auto beat = receiver.Receive();
    ASSERT_TRUE(beat.has_value());
    EXPECT_EQ(beat->name, "svc");
    EXPECT_EQ(beat->sender.pid, getpid());
    EXPECT_EQ(beat->sender.gid, getgid());
  }
  EXPECT_EQ(agent->Beat(), Result::kNoReceiver);
}

TEST_F(AgentHeartbeat, AFullReceiverDoesNotHoldTheServiceUp) {
  const auto agent = MakeAgent();
  const BeatReceiver receiver(sandbox_);
  Result result = Result::kOk;
  for (int i = 0; i < 100'000 && result == Result::kOk; ++i) {
    result = agent->Beat();
  }
  EXPECT_EQ(result, Result::kBusy);
}

TEST_F(AgentHeartbeat, TheThreadBeatsAndSendsHeartMessages) {
  const auto agent = MakeAgent();
  const BeatReceiver receiver(sandbox_);
  const FakeManager manager = Connect(*agent);
  ASSERT_EQ(agent->StartHeartbeat({.period = milliseconds(10)}), Result::kOk);
  for (int i = 1; i <= 3; ++i) {
    EXPECT_TRUE(receiver.Receive().has_value());
    EXPECT_EQ(manager.ReceiveBody(8).substr(0, 8), Word(static_cast<std::uint32_t>(i)) + Word(0));
  }
  // A second start takes the place of the first.
  ASSERT_EQ(agent->StartHeartbeat({.period = milliseconds(10), .heartMessages = false}),
            Result::kOk);
  while (manager.Peer().Receive(milliseconds(0)).has_value()) {
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(receiver.Receive().has_value());
  }
  EXPECT_FALSE(manager.Peer().Receive(milliseconds(0)).has_value());
  agent->StopHeartbeat();
  while (receiver.Receive(milliseconds(0)).has_value()) {
  }
  EXPECT_FALSE(receiver.Receive(milliseconds(50)).has_value());
}

TEST_F(AgentHeartbeat, PeriodsOutOfBoundsAreRefused) {
  const auto agent = MakeAgent();
  for (const milliseconds period :
       {milliseconds(9), milliseconds(0), milliseconds(-1), milliseconds(3'600'001)}) {
    EXPECT_EQ(agent->StartHeartbeat({.period = period}), Result::kInvalidArgument);
  }
}

// A signal of the process must find a thread of the service, never one of the library.
TEST_F(AgentHeartbeat, EveryThreadOfTheLibraryBlocksSignals) {
  const auto agent = MakeAgent();
  ASSERT_EQ(agent->StartHeartbeat(), Result::kOk);
  int threads = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(getpid())) {
      continue;
    }
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("SigBlk:", 0) == 0) {
        const unsigned long long blocked = std::stoull(line.substr(7), nullptr, 16);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM}) {
          EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << task.path() << ", signal " << signal;
        }
        ++threads;
      }
    }
  }
  EXPECT_GE(threads, 5);
}

}  // namespace
}  // namespace PmTest
