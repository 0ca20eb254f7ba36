#include "platform/securec/securec.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace ProcMgr {
namespace {

// The destination is filled with '#', so that a byte that was cleared or left shows.
TEST(Securec, CopiesOrClears) {
  const struct {
    const char* name;
    std::size_t destMax, count;
    bool isGood;
    std::string dest;
  } kCases[] = {
      {"fits", 4, 3, true, "abc#####"},
      {"fills", 4, 4, true, "abcd####"},
      {"nothing", 4, 0, true, "########"},
      {"one too many", 4, 5, false, std::string(4, '\0') + "####"},
      {"no room", 0, 1, false, "########"},
  };
  const std::string source = "abcdefgh";
  for (const auto& test : kCases) {
    std::string dest(8, '#');
    EXPECT_EQ(memcpy_s(dest.data(), test.destMax, source.data(), test.count) == 0, test.isGood)
        << test.name;
    EXPECT_EQ(dest, test.dest) << test.name;
  }
}

TEST(Securec, RefusesOverlapAndMissingPointers) {
  std::string text = "abcdefgh";
  EXPECT_NE(memcpy_s(text.data(), 4, text.data() + 1, 3), 0);
  EXPECT_EQ(text, std::string(4, '\0') + "efgh");
  text = "abcdefgh";
  EXPECT_NE(memcpy_s(text.data(), 4, nullptr, 1), 0);
  EXPECT_EQ(text, std::string(4, '\0') + "efgh");
  EXPECT_NE(memcpy_s(nullptr, 4, text.data(), 1), 0);
  EXPECT_NE(memcpy_s(text.data(), SIZE_MAX, "x", 1), 0) << "a negative size";
  EXPECT_EQ(text.substr(4), "efgh");
}

TEST(Securec, SetsNoMoreThanThereIs) {
  std::string dest(6, '#');
  EXPECT_EQ(memset_s(dest.data(), 6, 'x', 2), 0);
  EXPECT_EQ(dest, "xx####");
  EXPECT_NE(memset_s(dest.data(), 4, 'y', 5), 0);
  EXPECT_EQ(dest, "yyyy##");
  EXPECT_NE(memset_s(nullptr, 4, 0, 4), 0);
}

TEST(Securec, CopiesTextWithItsTerminator) {
  std::string dest(6, '#');
  EXPECT_EQ(strcpy_s(dest.data(), 4, "abc"), 0);
  EXPECT_EQ(dest, std::string("abc\0##", 6));
  EXPECT_NE(strcpy_s(dest.data(), 4, "abcd"), 0);
  EXPECT_EQ(dest[0], '\0');
  dest.assign(6, '#');
  EXPECT_NE(strcpy_s(dest.data(), 0, ""), 0);
  EXPECT_NE(strcpy_s(dest.data(), 6, nullptr), 0);
  EXPECT_EQ(dest[0], '\0');
  // Its own tail, behind what is copied: no overlap.
  std::string apart("xxxx\0ab", 7);
  EXPECT_EQ(strcpy_s(apart.data(), apart.size(), apart.data() + 5), 0);
  EXPECT_STREQ(apart.c_str(), "ab");
}

}  // namespace
}  // namespace ProcMgr
