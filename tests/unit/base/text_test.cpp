#include "base/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace {

using ProcMgr::IsStrDigits;
using ProcMgr::ParseNumber;

TEST(Text, NumbersAreTheWholeTextOrNothing) {
  const struct {
    std::string_view text;
    std::optional<std::int32_t> expected;
  } cases[] = {
      {"-0", 0},
      {"007", 7},
      {"2147483647", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"2147483648", {}},
      {"", {}},
      {"+1", {}},
      {" 1", {}},
      {"1\n", {}},
      {"0x10", {}},
      {"-", {}},
      {std::string_view("1\0", 2), {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ParseNumber<std::int32_t>(c.text), c.expected) << "'" << c.text << "'";
  }
  EXPECT_EQ(ParseNumber<std::uint32_t>("-1"), std::nullopt) << "must not wrap around";
  EXPECT_EQ(ParseNumber<std::uint8_t>("256"), std::nullopt);
  EXPECT_EQ(ParseNumber<std::uint64_t>("ff", 16), 255U);
}

TEST(Text, DigitsOnly) {
  EXPECT_TRUE(IsStrDigits(""));
  EXPECT_TRUE(IsStrDigits("0123456789"));
  for (const std::string_view text : {"-1", "1a", "\xb2", "٣"}) {
    EXPECT_FALSE(IsStrDigits(text)) << text;
  }
}

}  // namespace
