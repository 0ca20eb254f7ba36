#include "platform/nexio/packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "platform/nexio/address.h"

namespace ProcMgr::Nexio {
namespace {

// A request with the sequence number 0x04030201 and the data "ab", byte by byte.
const std::string kRequestBytes("NEXO\x01\0\x02\0\x01\x02\x03\x04\x02\0\0\0ab", 18);

std::span<const std::byte> Bytes(const std::string& text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::string Fault(const std::string& bytes) {
  Packet packet;
  const char* const fault = ParsePacket(Bytes(bytes), packet);
  return fault == nullptr ? "none" : fault;
}

TEST(NexioPacket, HeaderHasItsBytes) {
  const auto header = MakeHeader(PacketKind::kRequest, 0x04030201, 2);
  EXPECT_EQ(std::memcmp(header.data(), kRequestBytes.data(), kHeaderSize), 0);
  EXPECT_EQ(std::to_integer<int>(MakeHeader(PacketKind::kHello, 0, 0)[6]), 1);
  EXPECT_EQ(std::to_integer<int>(MakeHeader(PacketKind::kResponse, 0, 0)[6]), 3);
}

TEST(NexioPacket, IsReadFromItsBytes) {
  Packet packet;
  ASSERT_EQ(ParsePacket(Bytes(kRequestBytes), packet), nullptr);
  EXPECT_EQ(packet.kind, PacketKind::kRequest);
  EXPECT_EQ(packet.seq, 0x04030201U);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(packet.data), packet.size), "ab");
}

TEST(NexioPacket, EachDamageIsNamedAndLeavesTheRecordAlone) {
  struct Case {
    std::size_t at;
    char value;
    const char* fault;
  };
  const Case cases[] = {
      {0, 'n', "wrong magic"},
      {3, '\0', "wrong magic"},
      {4, '\2', "unknown version"},
      {5, '\1', "unknown version"},
      {6, '\0', "unknown kind"},
      {6, '\4', "unknown kind"},
      {7, '\1', "unknown kind"},
      {12, '\1', "size doesn't agree with the packet's length"},
      {12, '\3', "size doesn't agree with the packet's length"},
      {15, '\1', "size doesn't agree with the packet's length"},
  };
  for (const Case& each : cases) {
    std::string bytes = kRequestBytes;
    bytes[each.at] = each.value;
    EXPECT_EQ(Fault(bytes), each.fault) << "byte " << each.at;
    Packet packet;
    packet.seq = 77;
    (void)ParsePacket(Bytes(bytes), packet);
    EXPECT_EQ(packet.seq, 77U) << "byte " << each.at;
  }
}

TEST(NexioPacket, NoOtherLengthIsTaken) {
  for (std::size_t length = 0; length < kRequestBytes.size(); ++length) {
    EXPECT_NE(Fault(kRequestBytes.substr(0, length)), "none") << length;
  }
  EXPECT_NE(Fault(kRequestBytes + "c"), "none");
}

TEST(NexioPacket, LongestPacketIsTakenAndNoneAboveIt) {
  std::string bytes("NEXO\x01\0\x02\0\0\0\0\0\0\0\x01\0", 16);
  bytes.append(kNexioMaxData, 'x');
  EXPECT_EQ(Fault(bytes), "none");
  bytes[12] = 1;
  EXPECT_EQ(Fault(bytes + "x"), "packet too long");
}

TEST(NexioName, ServersNamesAreThese) {
  const std::string longest(64, 'a');
  for (const std::string& name : {std::string("a"), std::string("Az09._-"), longest}) {
    EXPECT_TRUE(IsServerName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), longest + "a", std::string(".a"), std::string("."), std::string("a/b"),
        std::string("a b"), std::string("a\xc3\xa4"), std::string("a\0b", 3), std::string("a\n")}) {
    EXPECT_FALSE(IsServerName(name)) << name;
  }
  EXPECT_STREQ(SocketAddress(longest).sun_path, ("/run/nexio/" + longest + ".sock").c_str());
}

TEST(NexioName, ClientsNamesCantBreakALogLine) {
  EXPECT_TRUE(IsClientName("x"));
  EXPECT_TRUE(IsClientName(std::string(255, 'x')));
  EXPECT_TRUE(IsClientName("camera service/\xc3\xa4"));
  for (const std::string& name : {std::string(), std::string(256, 'x'), std::string("a\nb"),
                                  std::string("a\0b", 3), std::string("\x7f")}) {
    EXPECT_FALSE(IsClientName(name)) << name;
  }
}

}  // namespace
}  // namespace ProcMgr::Nexio
