// The library's threads when memory is short.
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <string_view>

#include "tests/support/memory_shortage.h"
#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

bool IsOfTheLibrary() {
  std::array<char, 16> name{};
  return pthread_getname_np(pthread_self(), name.data(), name.size()) == 0 &&
         std::string_view(name.data()).starts_with("nexio-");
}

TEST(NexioMemory, ShortageCostsThePacketAtHand) {
  const EchoServer server("starved");
  LineRecorder told;
  const RawChannel channel("starved-peer", Into(told));
  const RawPeer greeted = ConnectRaw(Box(), "starved").value();
  const RawPeer silent = ConnectRaw(Box(), "starved").value();
  const std::string longText(100, 'x');
  // The two above have been accepted when one that came after them is served.
  EXPECT_EQ(Ask(Channel("starved").fd, longText), longText);
  Starve(&IsOfTheLibrary);
  channel.Request(1, longText);
  EXPECT_TRUE(Log().WaitFor("NEXIO : no memory, a packet is lost").has_value());
  // A hello needs none, a line about a bad one neither.
  EXPECT_TRUE(greeted.Send(MakePacket(kHello, 0, longText)));
  EXPECT_TRUE(silent.Send(MakePacket(kRequest, 1, longText)));
  EXPECT_TRUE(silent.AwaitClosed());
  const RawPeer newcomer = ConnectRaw(Box(), "starved").value();
  EXPECT_TRUE(newcomer.AwaitClosed());
  EXPECT_TRUE(Log().WaitFor("refused a client: there is no room for it").has_value());
  Starve(nullptr);
  channel.Request(2, "kept");
  EXPECT_EQ(told.Await(1), Lines{"kept"});
  EXPECT_TRUE(greeted.Send(MakePacket(kRequest, 1, longText)));
  EXPECT_EQ(greeted.Receive().value_or(RawPacket{}).data, longText);
  EXPECT_EQ(Ask(Channel("starved").fd, longText), longText);
}

}  // namespace
}  // namespace PmTest
