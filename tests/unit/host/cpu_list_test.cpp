#include <string>
#include <vector>

#include "host/core_affinity_mgr.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

using Cores = std::vector<std::uint32_t>;

Cores Parse(const std::string& line) {
  Cores cores;
  ParseCpuLine("path", line, cores);
  return cores;
}

TEST(CpuList, ReadsItsTwoForms) {
  const struct {
    std::string line;
    Cores cores;
  } kCases[] = {
      {"", {}},
      {",3,,4,", {3, 4}},
      {"1,2a,x, 3,4", {1, 4}},
      {"4294967295,4294967296,7", {4294967295, 7}},
      {"0-1,8-9", {0, 1, 8, 9}},
      {"0-3,7", {0, 1, 2, 3}},  // A lone number beside a range isn't read.
      {"-2", {0, 1, 2}},
      {"2-", {}},
      {"a-b", {0}},
      {"3-1", {}},
      {"0--1", {0, 0, 1}},
      {"1022-4000000000", {1022, 1023}},
      {"1022-99999999999", {1022, 1023}},
      {"99999999999-99999999999999", {}},
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

using CpuFile = Testing::HostTest;

TEST_F(CpuFile, OnlyTheFirstLineCounts) {
  Cores cores;
  for (const std::string& text : {std::string("\n3\n"), std::string(20000, '1')}) {
    ParseCpuFile(Write("cpuset.cpus", text), cores);
  }
  ParseCpuFile(Path("missing"), cores);
  EXPECT_THAT(cores, IsEmpty());
  ParseCpuFile(Write("cpuset.cpus", "0-1\n7\n"), cores);
  EXPECT_EQ(cores, (Cores{0, 1}));
}

}  // namespace
}  // namespace ProcMgr
