#include "base/boot_trace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/timer/generic_timer.h"
#include "sandbox/wait.h"

namespace {

TEST(BootTrace, FormatsSecondsSinceTheCountersStart) {
  struct {
    std::uint64_t count;
    std::uint64_t frequency;
    const char* tag;
    std::string expected;
  } const cases[] = {
      {0, 25'000'000, "PM", "[0.000000s][BOOT_TRACE][PM]"},
      {1, 3, "iammgr", "[0.333333s][BOOT_TRACE][iammgr]"},
      // Rounds to the nearest microsecond, as printf does.
      {1'999'999'999, 1'000'000'000, "PM", "[2.000000s][BOOT_TRACE][PM]"},
      {12'500'000, 0, "PM", ""},
      {UINT64_MAX, 1, "", "[18446744073709551616.000000s][BOOT_TRACE][]"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ProcMgr::FormatBootTrace(c.count, c.frequency, c.tag), c.expected)
        << c.count << "/" << c.frequency;
  }
}

TEST(BootTrace, PlatformCounterAdvances) {
  EXPECT_GT(ProcMgr::GenericTimerFrequency(), 0U);
  const std::uint64_t before = ProcMgr::GenericTimerCount();
  EXPECT_TRUE(PmSandbox::Eventually([before] { return ProcMgr::GenericTimerCount() > before; }));
}

}  // namespace
