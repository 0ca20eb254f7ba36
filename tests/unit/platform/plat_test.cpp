#include "platform/plat/plat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/plat/plat_record.h"

namespace ProcMgr {
namespace {

class Plat : public ::testing::Test {
 protected:
  Plat() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pm_plat_XXXXXX").string();
    dir_ = mkdtemp(pattern.data());
    record_.emplace(dir_ / "plat");
  }
  ~Plat() override { std::filesystem::remove_all(dir_); }
  Plat(const Plat&) = delete;
  Plat& operator=(const Plat&) = delete;

  [[nodiscard]] std::string Shown(const std::string& name) const {
    std::ifstream file(dir_ / "plat" / name, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "no such file";
  }

  std::filesystem::path dir_;
  std::optional<PlatRecord> record_;
};

TEST_F(Plat, SensorsHaveHandlesFromOneAndShowTheirValue) {
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  EXPECT_EQ(record_->RegisterSensor("iammgr", first), 0U);
  EXPECT_EQ(record_->RegisterSensor("iammgr", second), 0U);
  EXPECT_EQ(first, 1U);
  EXPECT_EQ(second, 2U);
  EXPECT_EQ(record_->UpdateSensor(second, 10), 0U);
  EXPECT_EQ(record_->UpdateSensor(second, 7), 0U);
  EXPECT_EQ(Shown("sensor/iammgr"), "7") << "a shorter value leaves nothing of a longer one";
  EXPECT_EQ(record_->UpdateSensor(3, 1), 2U);
  EXPECT_EQ(record_->UnregisterSensor(second), 0U);
  EXPECT_EQ(record_->UpdateSensor(second, 1), 2U) << "the handle has gone";
  EXPECT_EQ(record_->UpdateSensor(first, 1), 0U);
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
  EXPECT_EQ(record_->CreateGroup(""), 22);
  EXPECT_EQ(record_->CreateGroup(std::string(64, 'g')), 22);
  EXPECT_EQ(record_->CreateGroup(std::string(63, 'g')), 0);
  EXPECT_EQ(record_->CreateGroup("pool"), 0);
  EXPECT_EQ(Shown("group/pool"), "");
  EXPECT_EQ(record_->CreateGroup("pool"), kPlatGrpExists);

  EXPECT_EQ(record_->AddProcess("other", getpid(), 6), 2);
  for (const pid_t pid : {0, -1, 0x7fffffff}) {
    EXPECT_EQ(record_->AddProcess("pool", pid, 6), 3) << pid;
  }
  EXPECT_EQ(record_->AddProcess("pool", getpid(), 6), 0);
  EXPECT_EQ(record_->AddProcess("pool", getpid(), 14), 0);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(Shown("group/pool"), pid + " 6\n" + pid + " 14\n");
}

TEST_F(Plat, WhatCannotBeShownIsStillKept) {
  PlatRecord record("/dev/null/nowhere");
  EXPECT_EQ(record.CreateGroup("pool"), 0);
  EXPECT_EQ(record.AddProcess("pool", getpid(), 2), 0);
  // A name that would leave the folder is never written.
  EXPECT_EQ(record_->CreateGroup("../escaped"), 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "plat" / "escaped"));
}

TEST_F(Plat, ThreadsShareOneRecord) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int round = 0; round < 100; ++round) {
        const std::string name = "g" + std::to_string(round);
        (void)record_->CreateGroup(name);
        EXPECT_EQ(record_->AddProcess(name, getpid(), static_cast<std::uint32_t>(i)), 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(std::ranges::count(Shown("group/g50"), '\n'), 4) << "no line of the four is lost";
}

TEST(NodeList, ReadsNumbersAndRanges) {
  const struct {
    const char* text;
    std::vector<std::int32_t> nodes;  // Empty: no list.
  } kCases[] = {
      {"0\n", {0}}, {"0-1\n", {0, 1}}, {"0,2-3", {0, 2, 3}}, {"", {}},      {"\n", {}},
      {"a", {}},    {"3-1", {}},       {"0,", {}},           {",0", {}},    {"0-", {}},
      {"-1", {}},   {"0 1", {}},       {"4096", {}},         {"0-1-2", {}}, {"99999999999", {}},
  };
  for (const auto& test : kCases) {
    PlatMemInfo info{77, {}};
    EXPECT_EQ(ParseNodeList(test.text, info), !test.nodes.empty()) << test.text;
    if (test.nodes.empty()) {
      EXPECT_EQ(info.nodeCount, 77U) << test.text << ": untouched";
      continue;
    }
    ASSERT_EQ(info.nodeCount, test.nodes.size()) << test.text;
    EXPECT_TRUE(std::equal(test.nodes.begin(), test.nodes.end(), info.nodes.begin())) << test.text;
  }
  // More nodes than fit are counted and not stored.
  PlatMemInfo info{};
  EXPECT_TRUE(ParseNodeList("0-99", info));
  EXPECT_EQ(info.nodeCount, 100U);
  EXPECT_EQ(info.nodes.back(), 63);
}

TEST(PlatDevice, TheDeviceCallsWorkInAForkedChild) {
  if (!std::filesystem::exists("/sys/devices/system/node/online")) {
    GTEST_SKIP() << "this kernel tells no memory nodes";
  }
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::uint32_t count = 0;
    PlatMemInfo info{};
    const bool isGood = platGetDevNum(&count) == 0 && count == 1 &&
                        platMemGetInfo(0, 6, &info) == 0 && info.nodeCount >= 1;
    _exit(isGood ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ProcMgr
