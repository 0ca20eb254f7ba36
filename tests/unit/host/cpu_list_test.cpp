#include <string>
#include <vector>

#include "host/core_affinity_mgr.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using ::testing::SizeIs;
using Testing::TakeLog;

using Cores = std::vector<std::uint32_t>;

Cores Parse(const std::string& line) {
  Cores cores;
  ParseCpuLine("path", line, cores);
  return cores;
}

Cores Range(std::uint32_t first, std::uint32_t last) {
  Cores cores;
  for (std::uint32_t core = first; core <= last; ++core) {
    cores.push_back(core);
  }
  return cores;
}

TEST(CpuList, ReadsItsTwoForms) {
  const struct {
    std::string line;
    Cores cores;
  } kCases[] = {
      {"", {}},
      {"0", {0}},
      {"1,2,5", {1, 2, 5}},
      {",3,,4,", {3, 4}},
      {"1,2a,x, 3,4", {1, 4}},
      {"4294967295,4294967296,7", {4294967295, 7}},
      {"0-3", {0, 1, 2, 3}},
      {"0-1,8-9", {0, 1, 8, 9}},
      {"0-3,7", {0, 1, 2, 3}},  // A lone number beside a range isn't read.
      {"7,9-10", {9, 10}},
      {"-2", {0, 1, 2}},
      {"2-", {}},
      {"-", {0}},
      {"a-b", {0}},
      {"3-1", {}},
      {"0--1", {0, 0, 1}},
      {"98-101", {98, 99, 100, 101}},
      {"1022-4000000000", {1022, 1023}},
      {"99999999999-99999999999999", {}},
      {"0-99999999999", Range(0, 1023)},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(Parse(test.line), test.cores) << '"' << test.line << '"';
  }
}

TEST(CpuList, StopsBehindThe129thToken) {
  std::string line;
  for (int i = 0; i < 200; ++i) {
    line += "5,,";
  }
  EXPECT_THAT(Parse(line), SizeIs(129));
  EXPECT_THAT(Parse("x," + line), SizeIs(128));
}

TEST(CpuList, TellsEachRange) {
  (void)TakeLog();
  (void)Parse("0-3,8-11");
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_INFO, "path:path position:1 CpuCore size:8"),
                                     Plain(LOG_INFO, "path:path position before:0 after:3"),
                                     Plain(LOG_INFO, "path:path position:5 CpuCore size:8"),
                                     Plain(LOG_INFO, "path:path position before:8 after:11")));
}

class CpuFile : public Testing::HostTest {};

TEST_F(CpuFile, OnlyTheFirstLineCounts) {
  const struct {
    std::string text;
    Cores cores;
  } kCases[] = {{"0-1\n7\n", {0, 1}}, {"2", {2}}, {"\n3\n", {}}, {std::string(20000, '1'), {}}};
  for (const auto& test : kCases) {
    Cores cores;
    ParseCpuFile(Write("cpuset.cpus", test.text), cores);
    EXPECT_EQ(cores, test.cores) << test.text.substr(0, 10);
  }
  Cores cores;
  (void)TakeLog();
  ParseCpuFile(Path("missing"), cores);
  ParseCpuFile(dir_.string(), cores);
  EXPECT_THAT(cores, IsEmpty());
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace ProcMgr
