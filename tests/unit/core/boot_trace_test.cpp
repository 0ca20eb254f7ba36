#include "core/boot_trace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

TEST(BootTrace, FormatsSecondsSinceTheCountersStart) {
  struct Case {
    std::uint64_t count;
    std::uint64_t frequency;
    const char* tag;
    std::string expected;
  };
  const Case cases[] = {
      {12'500'000, 1'000'000, "PM", "[12.500000s][BOOT_TRACE][PM]"},
      {0, 25'000'000, "PM", "[0.000000s][BOOT_TRACE][PM]"},
      {1, 3, "iammgr", "[0.333333s][BOOT_TRACE][iammgr]"},
      // Rounds to the nearest microsecond, as printf does.
      {1'999'999'999, 1'000'000'000, "PM", "[2.000000s][BOOT_TRACE][PM]"},
      {7, 1, "", "[7.000000s][BOOT_TRACE][]"},
      {12'500'000, 0, "PM", ""},
      {std::numeric_limits<std::uint64_t>::max(), 1, "PM",
       "[18446744073709551616.000000s][BOOT_TRACE][PM]"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ProcMgr::FormatBootTrace(c.count, c.frequency, c.tag), c.expected)
        << c.count << "/" << c.frequency;
  }
}

TEST(BootTrace, PlatformCounterAdvances) {
  ASSERT_GT(ProcMgr::GenericTimerFrequency(), 0U);
  const std::uint64_t before = ProcMgr::GenericTimerCount();
  std::uint64_t after = before;
  for (int tries = 0; tries < 1'000'000 && after == before; ++tries) {
    after = ProcMgr::GenericTimerCount();
  }
  EXPECT_GT(after, before);
}

}  // namespace
