// The small libraries of the platform: sensors, groups, memory nodes, bounded copies.
#include <iterator>

#include "platform/plat/plat.h"
#include "platform/plat/plat_record.h"
#include "platform/securec/securec.h"
#include "tests/support/test.h"
#include "tests/support/threads.h"

namespace ProcMgr {
namespace {

class Plat : public ::testing::Test {
 protected:
  [[nodiscard]] std::string Shown(const std::string& name) const {
    std::ifstream file(folder_.Path("plat/" + name), std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "no such file";
  }

  PmTest::TempFolder folder_;
  PlatRecord record_{folder_.Path("plat")};
};

TEST_F(Plat, SensorsHaveHandlesFromOneAndShowTheirValue) {
  for (const std::uint64_t expected : {1U, 2U}) {
    std::uint64_t handle = 0;
    EXPECT_EQ(record_.RegisterSensor("iammgr", handle), 0U);
    EXPECT_EQ(handle, expected);
  }
  EXPECT_EQ(record_.UpdateSensor(2, 10), 0U);
  EXPECT_EQ(record_.UpdateSensor(2, 7), 0U);
  EXPECT_EQ(Shown("sensor/iammgr"), "7") << "a shorter value leaves nothing of a longer one";
  EXPECT_EQ(record_.UpdateSensor(3, 1), 2U);
  EXPECT_EQ(record_.UnregisterSensor(2), 0U);
  EXPECT_EQ(record_.UpdateSensor(2, 1), 2U) << "the handle has gone";
  EXPECT_EQ(record_.UpdateSensor(1, 1), 0U);
}

TEST_F(Plat, ASensorNameNeedsNoTerminator) {
  SensorNodeRecord record{};
  std::fill(std::begin(record.name), std::end(record.name), 'x');
  std::uint64_t handle = 0;
  EXPECT_EQ(platSensorNodeRegister(0, &record, &handle), 0U);
  EXPECT_NE(handle, 0U);
  EXPECT_EQ(platSensorNodeUnregister(0, handle), 0U);
}

TEST_F(Plat, GroupsTakeLivingProcesses) {
  EXPECT_EQ(record_.CreateGroup(""), 22);
  EXPECT_EQ(record_.CreateGroup(std::string(64, 'g')), 22);
  EXPECT_EQ(record_.CreateGroup(std::string(63, 'g')), 0);
  EXPECT_EQ(record_.CreateGroup("pool"), 0);
  EXPECT_EQ(Shown("group/pool"), "");
  EXPECT_EQ(record_.CreateGroup("pool"), kPlatGrpExists);

  EXPECT_EQ(record_.AddProcess("other", getpid(), 6), 2);
  for (const pid_t pid : {0, -1, 0x7fffffff}) {
    EXPECT_EQ(record_.AddProcess("pool", pid, 6), 3) << pid;
  }
  EXPECT_EQ(record_.AddProcess("pool", getpid(), 6), 0);
  EXPECT_EQ(record_.AddProcess("pool", getpid(), 14), 0);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(Shown("group/pool"), pid + " 6\n" + pid + " 14\n");
}

TEST_F(Plat, WhatCannotBeShownIsStillKept) {
  PlatRecord record("/dev/null/nowhere");
  EXPECT_EQ(record.CreateGroup("pool"), 0);
  EXPECT_EQ(record.AddProcess("pool", getpid(), 2), 0);
  // A name that would leave the folder is never written.
  EXPECT_EQ(record_.CreateGroup("../escaped"), 0);
  EXPECT_EQ(Shown("escaped"), "no such file");
}

TEST_F(Plat, ThreadsShareOneRecord) {
  PmTest::OnThreads(4, [this](int thread) {
    for (int round = 0; round < 100; ++round) {
      const std::string name = "g" + std::to_string(round);
      (void)record_.CreateGroup(name);
      EXPECT_EQ(record_.AddProcess(name, getpid(), static_cast<std::uint32_t>(thread)), 0);
    }
  });
  EXPECT_EQ(std::ranges::count(Shown("group/g50"), '\n'), 4) << "no line of the four is lost";
}

TEST(NodeList, ReadsNumbersAndRanges) {
  const auto nodes = [](const char* text) {
    PlatMemInfo info{77, {}};
    if (!ParseNodeList(text, info)) {
      EXPECT_EQ(info.nodeCount, 77U) << text << ": untouched";
      return std::vector<std::int32_t>();
    }
    return std::vector<std::int32_t>(info.nodes.begin(), info.nodes.begin() + info.nodeCount);
  };
  EXPECT_THAT(nodes("0\n"), ElementsAre(0));
  EXPECT_THAT(nodes("0,2-3"), ElementsAre(0, 2, 3));
  for (const char* const text :
       {"", "\n", "a", "3-1", "0,", ",0", "0-", "-1", "0 1", "4096", "0-1-2", "99999999999"}) {
    EXPECT_THAT(nodes(text), IsEmpty()) << text;
  }
  // More nodes than fit are counted and not stored.
  PlatMemInfo info{};
  EXPECT_TRUE(ParseNodeList("0-99", info));
  EXPECT_EQ(info.nodeCount, 100U);
  EXPECT_EQ(info.nodes.back(), 63);
}

TEST(PlatDevice, TellsTheNodesOfThisMachine) {
  std::uint32_t count = 0;
  EXPECT_EQ(platGetDevNum(&count), 0);
  EXPECT_EQ(count, 1U);
  if (!std::filesystem::exists("/sys/devices/system/node/online")) {
    GTEST_SKIP() << "this kernel tells no memory nodes";
  }
  PlatMemInfo info{};
  EXPECT_EQ(platMemGetInfo(0, 6, &info), 0);
  EXPECT_GE(info.nodeCount, 1U);
}

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
