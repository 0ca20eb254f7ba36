#include "platform/securec/securec.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace ProcMgr {
namespace {

// The destination is 8 bytes of '#', of which 4 may be written, so that what is cleared or left
// shows.
TEST(Securec, CopiesSetsOrClears) {
  std::string dest;
  const auto fresh = [&dest] {
    dest.assign(8, '#');
    return dest.data();
  };
  const std::string cleared = std::string(4, '\0') + "####";
  EXPECT_EQ(memcpy_s(fresh(), 4, "abcdef", 4), 0);
  EXPECT_EQ(dest, "abcd####");
  EXPECT_NE(memcpy_s(fresh(), 4, "abcdef", 5), 0);
  EXPECT_EQ(dest, cleared);
  EXPECT_NE(memcpy_s(fresh(), 4, nullptr, 1), 0);
  EXPECT_EQ(dest, cleared);
  EXPECT_NE(memcpy_s(fresh(), 4, dest.data() + 1, 3), 0) << "an overlap";
  EXPECT_EQ(dest, cleared);
  EXPECT_NE(memcpy_s(fresh(), SIZE_MAX, "x", 1), 0) << "a negative size";
  EXPECT_EQ(dest, "########");
  EXPECT_NE(memcpy_s(nullptr, 4, "x", 1), 0);

  EXPECT_EQ(memset_s(fresh(), 4, 'x', 2), 0);
  EXPECT_EQ(dest, "xx######");
  EXPECT_NE(memset_s(fresh(), 4, 'y', 5), 0);
  EXPECT_EQ(dest, "yyyy####");
  EXPECT_NE(memset_s(nullptr, 4, 0, 4), 0);

  EXPECT_EQ(strcpy_s(fresh(), 4, "abc"), 0);
  EXPECT_EQ(dest, std::string("abc\0####", 8));
  EXPECT_NE(strcpy_s(fresh(), 4, "abcd"), 0);
  EXPECT_EQ(dest, std::string("\0#######", 8));
  EXPECT_NE(strcpy_s(fresh(), 0, ""), 0);
  EXPECT_EQ(dest, "########");
  EXPECT_NE(strcpy_s(fresh(), 4, nullptr), 0);
  EXPECT_EQ(dest, std::string("\0#######", 8));
  // Its own tail, behind what is copied: no overlap.
  dest.assign("xxxx\0ab\0", 8);
  EXPECT_EQ(strcpy_s(dest.data(), dest.size(), dest.data() + 5), 0);
  EXPECT_STREQ(dest.c_str(), "ab");
}

}  // namespace
}  // namespace ProcMgr
