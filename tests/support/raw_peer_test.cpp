#include "tests/support/raw_peer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace PmTest {
namespace {

TEST(RawPacket, HeaderIsLittleEndianAndMayLie) {
  RawPacket packet = MakePacket(kResponse, 0x01020304, "ab");
  EXPECT_EQ(EncodePacket(packet), std::string("NEXO\x01\0\x03\0\x04\x03\x02\x01\x02\0\0\0ab", 18));
  packet.size = 0xffffffff;
  const auto read = DecodePacket(EncodePacket(packet));
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->size, 0xffffffff);
  EXPECT_EQ(read->data, "ab");
  EXPECT_FALSE(DecodePacket("fifteen bytes..").has_value());
}

TEST(RawServer, PeerSeesTheGivenGroupAndTheClose) {
  const Sandbox sandbox;
  const RawServer server(sandbox, "some.service", 4711);
  EXPECT_FALSE(ConnectRaw(sandbox, "other").has_value());
  auto client = ConnectRaw(sandbox, "some.service");
  ASSERT_TRUE(client.has_value());
  ucred peer{};
  socklen_t size = sizeof(peer);
  ASSERT_EQ(getsockopt(client->Fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size), 0);
  EXPECT_EQ(peer.gid, 4711U);
  EXPECT_EQ(getegid(), getgid());

  EXPECT_TRUE(client->Send(MakePacket(kHello, 0, "client")));
  auto served = server.AcceptGreeted();
  ASSERT_TRUE(served.has_value());
  EXPECT_TRUE(client->Send(MakePacket(kRequest, 7, "ask")));
  const auto request = served->Receive();
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->sequence, 7U);
  EXPECT_EQ(request->data, "ask");
  served->Close();
  EXPECT_TRUE(client->AwaitClosed());
}

}  // namespace
}  // namespace PmTest
