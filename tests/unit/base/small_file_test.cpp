#include "base/small_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <string>

#include "sandbox/process_table.h"
#include "tests/support/temp_folder.h"

namespace {

using ProcMgr::AppendId;
using ProcMgr::ReadLines;
using ProcMgr::ReadSmallFile;

class SmallFile : public testing::Test, protected PmTest::TempFolder {
 protected:
  void TearDown() override { EXPECT_EQ(PmSandbox::OpenDescriptors(getpid()), descriptors_); }

 private:
  const std::vector<std::string> descriptors_ = PmSandbox::OpenDescriptors(getpid());
};

TEST_F(SmallFile, ReadsEveryByteUpToTheLimitOrTellsWhyNot) {
  using namespace std::string_literals;
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("loop", Path("loop"));
  const std::string four(4 * 4096, 'x');  // Blocks.
  const struct {
    std::string path;
    std::size_t limit;
    int error;
    std::string bytes;
  } cases[] = {
      {Write("empty", ""), 0, 0, ""},
      {Write("one", "a"), 0, EFBIG, ""},
      {Write("binary", "a\0b\xff\n"s), 100, 0, "a\0b\xff\n"s},
      {Write("limit", four), four.size(), 0, four},
      {Write("above", four + "y"), four.size(), EFBIG, ""},
      {Path("fifo"), 100, 0, ""},  // Nobody writes: it counts as empty, and nobody waits.
      {Path("missing"), 100, ENOENT, ""},
      {Path(""), 100, EISDIR, ""},
      {Path("loop"), 100, ELOOP, ""},
      {Path(std::string(300, 'n')), 100, ENAMETOOLONG, ""},
  };
  for (const auto& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(ReadSmallFile(c.path, c.limit, out), c.error) << c.path;
    EXPECT_EQ(out, c.error == 0 ? c.bytes : "untouched") << c.path;
  }
}

TEST_F(SmallFile, GivesTheLinesOfAFileOfAnySize) {
  const std::string block(4095, 'b');
  std::string large;
  for (int i = 0; i < 400; ++i) {
    large += block + "\n";  // More than a configuration file may have in one piece.
  }
  const struct {
    std::string path;
    int error;
    std::string told;  // Of each line its beginning and its length.
  } cases[] = {
      {Write("none", ""), 0, ""},
      {Write("last", "one\n\nthree"), 0, "one 3,  0, thre 5, "},
      {Write("stop", "one\nstop\nthree\n"), 0, "one 3, "},
      {Write("across", block + "xy\nz\n"), 0, "bbbb 4097, z 1, "},
      {Write("large", large + "end"), 0, "bbbb 4095, *400, end 3, "},
      {Path("missing"), ENOENT, ""},
      {Path(""), EISDIR, ""},
  };
  for (const auto& c : cases) {
    std::string told;
    std::string last;
    int same = 0;
    const auto take = [&](std::string_view line, std::size_t length) {
      const std::string entry = std::string(line) + " " + std::to_string(length) + ", ";
      same = entry == last ? same + 1 : 1;
      told += same == 1 ? entry : same == 400 ? "*400, " : "";
      last = entry;
      return line != "stop" || (told.resize(told.size() - entry.size()), false);
    };
    EXPECT_EQ(ReadLines(c.path, 4, take), c.error) << c.path;
    EXPECT_EQ(told, c.told) << c.path;
  }
}

TEST_F(SmallFile, ReadsFilesThatTellNoSize) {
  std::string out;
  ASSERT_EQ(ReadSmallFile("/proc/self/status", ProcMgr::kConfigFileLimit, out), 0);
  EXPECT_NE(out.find("\nPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos);
}

TEST_F(SmallFile, AppendsALineToWhatIsThereAndTellsFailures) {
  const std::string file = Write("tasks", "17\n");
  EXPECT_EQ(AppendId(file, -1), 0);
  EXPECT_EQ(AppendId(file, std::numeric_limits<std::int64_t>::max()), 0);
  std::string out;
  EXPECT_EQ(ReadSmallFile(file, 100, out), 0);
  EXPECT_EQ(out, "17\n-1\n9223372036854775807\n");
  EXPECT_EQ(AppendId(Path("missing"), 1), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(Path("missing"))) << "a tasks file is the kernel's to make";
  EXPECT_EQ(AppendId(Path(""), 1), EISDIR);
  EXPECT_EQ(AppendId("/dev/full", 1), ENOSPC);
}

}  // namespace
