#include "platform/nexio/packet.h"

#include <gtest/gtest.h>

#include <span>
#include <string>

#include "platform/nexio/address.h"

namespace ProcMgr::Nexio {
namespace {

TEST(NexioPacket, EachDamageIsNamedAndLeavesTheRecordAlone) {
  // A request with the sequence number 0x04030201 and the data "ab".
  const std::string good("NEXO\x01\0\x02\0\x01\x02\x03\x04\x02\0\0\0ab", 18);
  const auto parse = [](const std::string& bytes, Packet& packet) {
    const char* const fault =
        ParsePacket(std::as_bytes(std::span(bytes.data(), bytes.size())), packet);
    return std::string(fault == nullptr ? "none" : fault);
  };
  Packet packet;
  EXPECT_EQ(parse(good, packet), "none");
  packet.seq = 77;
  for (std::size_t bit = 0; bit < 8 * kHeaderSize; ++bit) {
    const std::size_t byte = bit / 8;
    // The sequence number may be any, and a request with one more in its kind is a response.
    if ((byte >= 8 && byte < 12) || bit == 48) {
      continue;
    }
    std::string bytes = good;
    bytes[byte] = static_cast<char>(bytes[byte] ^ (1 << bit % 8));
    EXPECT_EQ(parse(bytes, packet), byte < 4   ? "wrong magic"
                                    : byte < 6 ? "unknown version"
                                    : byte < 8 ? "unknown kind"
                                               : "size doesn't agree with the packet's length")
        << "bit " << bit;
  }
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_NE(parse(good.substr(0, length), packet), "none") << length;
  }
  EXPECT_NE(parse(good + "c", packet), "none");
  std::string tooLong("NEXO\x01\0\x02\0\0\0\0\0\x01\0\x01\0", 16);
  tooLong.append(kNexioMaxData + 1, 'x');
  EXPECT_EQ(parse(tooLong, packet), "packet too long");
  EXPECT_EQ(packet.seq, 77U);
}

// A server's name can't leave its folder, a client's can't break a log line.
TEST(NexioName, AreThese) {
  const struct {
    std::string name;
    bool isServers;
    bool isClients;
  } cases[] = {
      {"Az09._-", true, true},
      {std::string(64, 'a'), true, true},
      {std::string(65, 'a'), false, true},
      {std::string(255, 'a'), false, true},
      {std::string(256, 'a'), false, false},
      {"", false, false},
      {".a", false, true},
      {"a/b", false, true},
      {"a b\xc3\xa4", false, true},
      {std::string("a\0b", 3), false, false},
      {"a\n", false, false},
      {"\x7f", false, false},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(IsServerName(each.name), each.isServers) << each.name;
    EXPECT_EQ(IsClientName(each.name), each.isClients) << each.name;
  }
  const std::string longest(64, 'a');
  EXPECT_STREQ(SocketAddress(longest).sun_path, ("/run/nexio/" + longest + ".sock").c_str());
}

}  // namespace
}  // namespace ProcMgr::Nexio
