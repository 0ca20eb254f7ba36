// The library's threads when memory is short.
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <string_view>

#include "tests/unit/platform/nexio_world.h"

namespace {

// While set, the library's threads get no memory.
std::atomic<bool> starving = false;

bool IsStarved() {
  std::array<char, 16> name{};
  return starving && pthread_getname_np(pthread_self(), name.data(), name.size()) == 0 &&
         std::string_view(name.data()).starts_with("nexio-");
}

}  // namespace

// Not inlined, or the compiler takes the pairs below for mismatched ones.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = IsStarved() ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace PmTest {
namespace {

TEST(NexioMemory, ShortageCostsThePacketAtHand) {
  const EchoServer server("starved");
  LineRecorder told;
  const RawChannel channel("starved-peer", Into(told));
  const RawPeer greeted = ConnectRaw(Box(), "starved").value();
  const RawPeer silent = ConnectRaw(Box(), "starved").value();
  const std::string longText(100, 'x');
  // The two above have been accepted when one that came after them is served.
  EXPECT_EQ(Ask(Channel("starved").fd, longText), longText);
  starving = true;
  channel.Request(1, longText);
  EXPECT_TRUE(Log().WaitFor("NEXIO : no memory, a packet is lost").has_value());
  // A hello needs none, a line about a bad one neither.
  EXPECT_TRUE(greeted.Send(MakePacket(kHello, 0, longText)));
  EXPECT_TRUE(silent.Send(MakePacket(kRequest, 1, longText)));
  EXPECT_TRUE(silent.AwaitClosed());
  const RawPeer newcomer = ConnectRaw(Box(), "starved").value();
  EXPECT_TRUE(newcomer.AwaitClosed());
  EXPECT_TRUE(Log().WaitFor("refused a client: there is no room for it").has_value());
  starving = false;
  channel.Request(2, "kept");
  EXPECT_EQ(told.Await(1), Lines{"kept"});
  EXPECT_TRUE(greeted.Send(MakePacket(kRequest, 1, longText)));
  EXPECT_EQ(greeted.Receive().value_or(RawPacket{}).data, longText);
  EXPECT_EQ(Ask(Channel("starved").fd, longText), longText);
}

}  // namespace
}  // namespace PmTest
