// The library against peers that are written by hand: its bytes, and what it does about theirs.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

// The exact bytes of the next packet; empty if the peer has closed.
std::string ReceiveBytes(const RawPeer& peer) {
  std::string bytes(1 << 17, '\0');
  const ssize_t length = recv(peer.Fd(), bytes.data(), bytes.size(), 0);
  bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return bytes;
}

// A client by hand that has said hello.
RawPeer Greeted(const std::string& server) {
  auto peer = ConnectRaw(Box(), server);
  EXPECT_TRUE(peer.has_value());
  EXPECT_TRUE(peer->Send(MakePacket(kHello, 0, "by-hand")));
  return std::move(*peer);
}

TEST(NexioWire, OpeningSideSpeaksTheseBytes) {
  ASSERT_EQ(setenv("PROC_NAME", "PROCMGR", 1), 0);
  const RawServer server(Box(), "bytes-out", getgid());
  Recorder told;
  const int fd = OpenTo("bytes-out", told.Callback());
  ASSERT_EQ(unsetenv("PROC_NAME"), 0);
  ASSERT_GE(fd, 1);
  auto peer = server.Accept();
  ASSERT_TRUE(peer.has_value());
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\1\0\0\0\0\0\7\0\0\0PROCMGR", 23));

  ASSERT_EQ(SendText(fd, "ask"), 0);
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\2\0\1\0\0\0\3\0\0\0ask", 19));

  ASSERT_TRUE(peer->SendBytes(std::string("NEXO\1\0\2\0\x78\x56\x34\x12\2\0\0\0hi", 18)));
  const auto events = told.Await(1);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].fd, fd);
  EXPECT_EQ(events[0].seq, 0x12345678U);
  EXPECT_EQ(events[0].data, "hi");

  std::string answer = "yes";
  ProcMgr::NexioResponse response;
  response.seq = 0x12345678;
  response.data = answer.data();
  response.size = 3;
  ASSERT_EQ(ProcMgr::NexioSendResponse(fd, response), 0);
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\3\0\x78\x56\x34\x12\3\0\0\0yes", 19));
  EXPECT_TRUE(Close(fd));
  EXPECT_TRUE(peer->AwaitClosed());
}

TEST(NexioWire, ServerTellsTheNameOfAHelloAndAnswersNothing) {
  std::string told;
  ProcMgr::Mutex mutex;
  ProcMgr::NexioServerParam param;
  param.serverName = "hello-in";
  param.connectCallback = [&](int fd, const char* name, std::uint32_t length) {
    const ProcMgr::MutexLock lock(mutex);
    told = std::to_string(fd > 0) + " " + name + " " + std::to_string(length);
  };
  param.requestCallback = &EchoServer::Echo;
  const int server = ProcMgr::NexioCreateServer(param);
  ASSERT_GE(server, 1);
  const RawPeer peer = Greeted("hello-in");
  ASSERT_TRUE(peer.Send(MakePacket(kRequest, 5, "x")));
  // The first packet that comes back is the answer to the request.
  EXPECT_EQ(ReceiveBytes(peer), std::string("NEXO\1\0\3\0\5\0\0\0\1\0\0\0x", 17));
  {
    const ProcMgr::MutexLock lock(mutex);
    EXPECT_EQ(told, "1 by-hand 7");
  }
  EXPECT_TRUE(Close(server));
  EXPECT_TRUE(peer.AwaitClosed());
}

struct Violation {
  const char* name;
  bool greeted;
  RawPacket packet;
  const char* line;
};

RawPacket Lying(std::uint32_t size) {
  RawPacket packet = MakePacket(kRequest, 1, "data");
  packet.size = size;
  return packet;
}

RawPacket WrongMagic() {
  RawPacket packet = MakePacket(kRequest, 1, "data");
  packet.magic = 1;
  return packet;
}

const Violation kViolations[] = {
    {"garbage", true, WrongMagic(), "wrong magic"},
    {"short", true, Lying(5), "size doesn't agree"},
    {"long", true, Lying(3), "size doesn't agree"},
    {"huge", true, Lying(0xffffffff), "size doesn't agree"},
    {"oversized", true, MakePacket(kRequest, 1, std::string(65537, 'x')), "packet too long"},
    {"hello-twice", true, MakePacket(kHello, 0, "again"), "unexpected hello"},
    {"answer-unasked", true, MakePacket(kResponse, 1, "x"), "never sent"},
    {"no-hello", false, MakePacket(kRequest, 1, "x"), "no hello"},
    {"hello-empty", false, MakePacket(kHello, 0, ""), "without a proper name"},
    {"hello-control", false, MakePacket(kHello, 0, "a\nb"), "without a proper name"},
};

TEST(NexioWire, ViolationClosesItsConnectionWithOneLineAndNoOther) {
  const EchoServer server("strict");
  const RawPeer bystander = Greeted("strict");
  for (const Violation& each : kViolations) {
    SCOPED_TRACE(each.name);
    const std::size_t linesBefore = Log().Count("NEXIO : connection closed");
    auto peer = ConnectRaw(Box(), "strict");
    ASSERT_TRUE(peer.has_value());
    if (each.greeted) {
      ASSERT_TRUE(peer->Send(MakePacket(kHello, 0, each.name)));
    }
    ASSERT_TRUE(peer->Send(each.packet));
    // Sent behind it, and never to be looked at.
    (void)peer->Send(MakePacket(kRequest, 2, "late"));
    EXPECT_TRUE(peer->AwaitClosed());
    EXPECT_TRUE(Log().WaitForCount("NEXIO : connection closed", linesBefore + 1));
    EXPECT_NE(Log().Text().find(each.line), std::string::npos);

    ASSERT_TRUE(bystander.Send(MakePacket(kRequest, 9, "still there")));
    const auto answer = bystander.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->data, "still there");
    EXPECT_EQ(Log().Count("NEXIO : connection closed"), linesBefore + 1);
  }
}

TEST(NexioWire, PacketThatIsCutOrEmptyClosesToo) {
  const EchoServer server("strict-short");
  for (const std::string& bytes : {std::string(), std::string("N"), std::string(15, 'x')}) {
    const std::size_t linesBefore = Log().Count("shorter than its header");
    const RawPeer peer = Greeted("strict-short");
    ASSERT_EQ(send(peer.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(peer.AwaitClosed()) << bytes.size();
    EXPECT_TRUE(Log().WaitForCount("shorter than its header", linesBefore + 1)) << bytes.size();
  }
}

TEST(NexioWire, OpenedChannelBreaksWithItsNullRequestOnAViolation) {
  const RawServer server(Box(), "rude-server", getgid());
  Recorder told;
  const int fd = OpenTo("rude-server", told.Callback());
  ASSERT_GE(fd, 1);
  auto peer = server.AcceptGreeted();
  ASSERT_TRUE(peer.has_value());
  ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, "fine")));
  ASSERT_TRUE(peer->Send(MakePacket(kHello, 0, "wrong way")));
  const auto events = told.Await(2);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].data, "fine");
  EXPECT_FALSE(events[1].data.has_value());
  EXPECT_EQ(SendText(fd, "x"), ProcMgr::kNexioBroken);
  EXPECT_TRUE(peer->AwaitClosed());
  EXPECT_TRUE(Close(fd));
}

TEST(NexioWire, ResponseThatNobodyAwaitsIsDroppedWithOneLine) {
  const RawServer server(Box(), "replays", getgid());
  Recorder told;
  const int fd = OpenTo("replays", told.Callback());
  ASSERT_GE(fd, 1);
  const auto peer = server.AcceptGreeted();
  ASSERT_TRUE(peer.has_value());
  std::thread answerer([&peer] {
    const auto request = peer->Receive();
    ASSERT_TRUE(request.has_value());
    for (int i = 0; i < 3; ++i) {
      EXPECT_TRUE(peer->Send(MakePacket(kResponse, request->sequence, "answer")));
    }
    EXPECT_TRUE(peer->Send(MakePacket(kRequest, 1, "behind")));
  });
  EXPECT_EQ(Ask(fd, "question"), "answer");
  answerer.join();
  const auto events = told.Await(1);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].data, "behind");
  EXPECT_TRUE(Log().WaitForCount("response without a waiter dropped, fd=" + std::to_string(fd), 1));
  EXPECT_EQ(Log().Count("response without a waiter dropped, fd=" + std::to_string(fd)), 1U);
  EXPECT_TRUE(Close(fd));
}

TEST(NexioWire, EverythingThatArrivedComesBeforeTheEnd) {
  // The peer closes with something unread on its side: the kernel then reports a reset in front of
  // what the peer had sent.
  const RawServer server(Box(), "last-words", getgid());
  for (const bool unread : {false, true}) {
    SCOPED_TRACE(unread);
    Recorder told;
    Gate gate;
    const int fd = OpenTo("last-words", [&](int handle, const ProcMgr::NexioRequest* request) {
      if (request != nullptr) {
        gate.Pass();
      }
      told.Add(handle, request);
    });
    ASSERT_GE(fd, 1);
    auto peer = server.AcceptGreeted();
    ASSERT_TRUE(peer.has_value());
    if (unread) {
      ASSERT_EQ(SendText(fd, "never read"), 0);
    }
    for (const char* text : {"one", "two", "three"}) {
      ASSERT_TRUE(peer->Send(MakePacket(kRequest, 1, text)));
    }
    ASSERT_TRUE(gate.AwaitArrivals(1));
    peer->Close();
    gate.Open();
    const auto events = told.Await(4);
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[0].data, "one");
    EXPECT_EQ(events[1].data, "two");
    EXPECT_EQ(events[2].data, "three");
    EXPECT_FALSE(events[3].data.has_value());
    EXPECT_TRUE(Close(fd));
    EXPECT_EQ(told.Await(4).size(), 4U);
  }
}

TEST(NexioWire, DescriptorsThatAPeerPassesAreNotKept) {
  const EchoServer server("gifts");
  const RawPeer peer = Greeted("gifts");
  ASSERT_TRUE(peer.Send(MakePacket(kRequest, 1, "ready")));
  ASSERT_TRUE(peer.Receive().has_value());
  const std::size_t before = DescriptorCount();

  const ProcMgr::UniqueFd gift(eventfd(0, EFD_CLOEXEC));
  std::string bytes = EncodePacket(MakePacket(kRequest, 2, "gift"));
  iovec part{bytes.data(), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  const int fd = gift.Get();
  std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  ASSERT_GT(sendmsg(peer.Fd(), &message, MSG_NOSIGNAL), 0);
  const auto answer = peer.Receive();
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->data, "gift");
  EXPECT_EQ(DescriptorCount(), before + 1);
}

TEST(NexioWire, ClientThatSaysNothingLosesItsPlace) {
  const EchoServer server("patient", nullptr, 1);
  const auto silent = ConnectRaw(Box(), "patient");
  ASSERT_TRUE(silent.has_value());
  EXPECT_TRUE(silent->AwaitClosed());
  EXPECT_TRUE(Log().WaitFor("no hello in time").has_value());
  // The place is free a moment after the connection has closed.
  EXPECT_TRUE(Eventually([] {
    const RawPeer next = Greeted("patient");
    return next.Send(MakePacket(kRequest, 1, "x")) && next.Receive().has_value();
  }));
}

}  // namespace
}  // namespace PmTest
