// The library against peers that are written by hand: its bytes, and what it does about theirs.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>

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
  RawPeer peer = ConnectRaw(Box(), server).value();
  EXPECT_TRUE(peer.Send(MakePacket(kHello, 0, "by-hand")));
  return peer;
}

// The data of the answer to a request of this data.
std::string Echoed(const RawPeer& peer, const std::string& data) {
  EXPECT_TRUE(peer.Send(MakePacket(kRequest, 9, data)));
  return peer.Receive().value_or(RawPacket{}).data;
}

TEST(NexioWire, OpeningSideSpeaksTheseBytes) {
  ASSERT_EQ(setenv("PROC_NAME", "PROCMGR", 1), 0);
  const RawServer server(Box(), "bytes-out", getgid());
  LineRecorder told;
  const Channel channel("bytes-out", [&told](int fd, const ProcMgr::NexioRequest* request) {
    told.Add(std::to_string(fd) + " " + std::to_string(request->seq));
    Into(told)(fd, request);
  });
  ASSERT_EQ(unsetenv("PROC_NAME"), 0);
  auto peer = server.Accept();
  ASSERT_TRUE(peer.has_value());
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\1\0\0\0\0\0\7\0\0\0PROCMGR", 23));

  ASSERT_EQ(SendText(channel.fd, "ask"), 0);
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\2\0\1\0\0\0\3\0\0\0ask", 19));

  ASSERT_TRUE(peer->SendBytes(std::string("NEXO\1\0\2\0\x78\x56\x34\x12\2\0\0\0hi", 18)));
  EXPECT_EQ(told.Await(2), (Lines{std::to_string(channel.fd) + " 305419896", "hi"}));

  std::string answer = "yes";
  ProcMgr::NexioResponse response;
  response.seq = 0x12345678;
  response.data = answer.data();
  response.size = 3;
  ASSERT_EQ(ProcMgr::NexioSendResponse(channel.fd, response), 0);
  EXPECT_EQ(ReceiveBytes(*peer), std::string("NEXO\1\0\3\0\x78\x56\x34\x12\3\0\0\0yes", 19));
  EXPECT_TRUE(Close(channel.fd));
  EXPECT_TRUE(peer->AwaitClosed());
}

TEST(NexioWire, ServerTellsTheNameOfAHelloAndAnswersNothing) {
  LineRecorder told;
  const EchoServer server("hello-in", [&told](int fd, const char* name, std::uint32_t length) {
    told.Add(std::to_string(fd > 0) + " " + name + " " + std::to_string(length));
  });
  const RawPeer peer = Greeted("hello-in");
  ASSERT_TRUE(peer.Send(MakePacket(kRequest, 5, "x")));
  // The first packet that comes back is the answer to the request.
  EXPECT_EQ(ReceiveBytes(peer), std::string("NEXO\1\0\3\0\5\0\0\0\1\0\0\0x", 17));
  EXPECT_EQ(told.Await(1), Lines{"1 by-hand 7"});
}

TEST(NexioWire, ViolationClosesItsConnectionWithOneLineAndNoOther) {
  const EchoServer server("strict");
  const RawPeer bystander = Greeted("strict");
  const std::string hello = EncodePacket(MakePacket(kHello, 0, "by-hand"));
  const struct {
    std::string first;  // Empty: the violation is all that is sent.
    std::string bytes;
    std::string fault;
  } cases[] = {
      {hello, "", "packet shorter than its header"},
      {hello, hello.substr(0, 15), "packet shorter than its header"},
      {hello, std::string(16, 'x'), "wrong magic"},
      {hello, hello, "unexpected hello"},
      {hello, EncodePacket(MakePacket(kResponse, 1, "x")), "response to a request that was never"},
      {"", EncodePacket(MakePacket(kRequest, 1, "x")), "no hello"},
      {"", EncodePacket(MakePacket(kHello, 0, "")), "hello without a proper name"},
      {"", EncodePacket(MakePacket(kHello, 0, "a\nb")), "hello without a proper name"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.fault);
    const std::size_t lines = Log().Lines().size();
    const std::size_t closed = Log().Count("NEXIO : connection closed");
    const auto peer = ConnectRaw(Box(), "strict");
    ASSERT_TRUE(peer.has_value());
    ASSERT_TRUE(each.first.empty() || peer->SendBytes(each.first));
    ASSERT_TRUE(peer->SendBytes(each.bytes));
    // Sent behind it, and never to be looked at.
    (void)peer->Send(MakePacket(kRequest, 2, "late"));
    EXPECT_TRUE(peer->AwaitClosed());
    EXPECT_TRUE(Log().WaitFor("NEXIO : connection closed: " + each.fault, lines).has_value());
    EXPECT_EQ(Echoed(bystander, "still there"), "still there");
    EXPECT_EQ(Log().Count("NEXIO : connection closed"), closed + 1);
  }
}

// The peer closes with something unread on its side: the kernel then reports a reset in front of
// what the peer had sent.
TEST(NexioWire, EverythingThatArrivedComesBeforeTheEnd) {
  for (const bool unread : {false, true}) {
    SCOPED_TRACE(unread);
    LineRecorder told;
    Gate gate;
    RawChannel channel("last-words", [&](int fd, const ProcMgr::NexioRequest* request) {
      gate.Pass();
      Into(told)(fd, request);
    });
    ASSERT_TRUE(!unread || SendText(channel.fd, "never read") == 0);
    for (const char* const text : {"one", "two", "three"}) {
      channel.Request(1, text);
    }
    EXPECT_TRUE(gate.AwaitArrivals(1));
    channel.peer.Close();
    gate.Open();
    EXPECT_EQ(told.Await(4), (Lines{"one", "two", "three", "end"}));
    EXPECT_TRUE(Close(channel.fd));
    EXPECT_EQ(told.Await(4).size(), 4U);
  }
}

TEST(NexioWire, DescriptorsThatAPeerPassesAreNotKept) {
  const EchoServer server("gifts");
  const RawPeer peer = Greeted("gifts");
  ASSERT_EQ(Echoed(peer, "ready"), "ready");
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
  EXPECT_EQ(peer.Receive().value_or(RawPacket{}).data, "gift");
  EXPECT_EQ(DescriptorCount(), before + 1);
}

TEST(NexioWire, ServerHoldsAsManyAsItMayAndNoneThatIsSilent) {
  const EchoServer server("patient", nullptr, 1);
  const auto silent = ConnectRaw(Box(), "patient");
  ASSERT_TRUE(silent.has_value());
  EXPECT_TRUE(silent->AwaitClosed());
  EXPECT_TRUE(Log().WaitFor("no hello in time").has_value());
  // The place is free a moment after the connection has closed.
  std::optional<Channel> holder;
  EXPECT_TRUE(Eventually([&holder] {
    holder.emplace("patient");
    return Ask(holder->fd, "x") == "x";
  }));
  EXPECT_EQ(Ask(Channel("patient").fd, "x"), "error -32");
}

}  // namespace
}  // namespace PmTest
