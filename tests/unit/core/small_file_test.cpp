#include "core/small_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

namespace {

namespace fs = std::filesystem;
using ProcMgr::AppendId;
using ProcMgr::ReadSmallFile;

std::ptrdiff_t OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class SmallFile : public testing::Test {
 protected:
  SmallFile() {
    std::string pattern = (fs::temp_directory_path() / "small_file.XXXXXX").string();
    dir_ = mkdtemp(pattern.data());
  }
  ~SmallFile() override { fs::remove_all(dir_); }

  // The path of a file with the given bytes.
  std::string Make(const std::string& name, const std::string& bytes) const {
    std::ofstream(dir_ / name, std::ios::binary) << bytes;
    return (dir_ / name).string();
  }
  std::string Bytes(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

 private:
  fs::path dir_;
};

TEST_F(SmallFile, ReadsEveryByteUpToTheLimit) {
  using namespace std::string_literals;
  const std::string fourBlocks(4 * 4096, 'x');
  struct Case {
    const char* name;
    std::string bytes;
    std::size_t limit;
    int expected;
  };
  const Case cases[] = {
      {"empty", "", 0, 0},
      {"one_over_an_empty_limit", "a", 0, EFBIG},
      {"binary", "a\0b\xff\n"s, 100, 0},
      {"exactly_the_limit", fourBlocks, fourBlocks.size(), 0},
      {"one_above_the_limit", fourBlocks + "y", fourBlocks.size(), EFBIG},
  };
  for (const Case& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(ReadSmallFile(Make(c.name, c.bytes), c.limit, out), c.expected) << c.name;
    EXPECT_EQ(out, c.expected == 0 ? c.bytes : "untouched") << c.name;
  }
}

TEST_F(SmallFile, ReadsFilesThatTellNoSize) {
  std::string out;
  ASSERT_EQ(ReadSmallFile("/proc/self/status", ProcMgr::kConfigFileLimit, out), 0);
  EXPECT_NE(out.find("\nPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos);
}

TEST_F(SmallFile, FailuresAreToldAndLeaveNothingBehind) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  fs::create_symlink("loop", Path("loop"));
  const std::string file = Make("file", "text");
  struct Case {
    std::string path;
    int expected;
  };
  const Case cases[] = {
      {"", ENOENT},          {Path("missing"), ENOENT},
      {Path(""), EISDIR},    {file + "/below", ENOTDIR},
      {Path("loop"), ELOOP}, {Path(std::string(300, 'n')), ENAMETOOLONG},
      {Path("fifo"), 0},  // Nobody writes: it counts as empty, and nobody waits.
  };
  const std::ptrdiff_t before = OpenDescriptors();
  for (const Case& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(ReadSmallFile(c.path, 100, out), c.expected) << c.path;
    EXPECT_EQ(out, c.expected == 0 ? "" : "untouched") << c.path;
  }
  std::string out;
  EXPECT_EQ(ReadSmallFile(file, 2, out), EFBIG);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(SmallFile, AppendsALineToWhatIsThere) {
  const std::string file = Make("tasks", "17\n");
  EXPECT_EQ(AppendId(file, 4242), 0);
  EXPECT_EQ(AppendId(file, -1), 0);
  EXPECT_EQ(AppendId(file, std::numeric_limits<std::int64_t>::max()), 0);
  EXPECT_EQ(Bytes(file), "17\n4242\n-1\n9223372036854775807\n");
}

TEST_F(SmallFile, AppendFailuresAreTold) {
  const std::ptrdiff_t before = OpenDescriptors();
  EXPECT_EQ(AppendId(Path("missing"), 1), ENOENT);
  EXPECT_FALSE(fs::exists(Path("missing"))) << "a tasks file is the kernel's to make";
  EXPECT_EQ(AppendId(Path(""), 1), EISDIR);
  EXPECT_EQ(AppendId("/dev/full", 1), ENOSPC);
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
