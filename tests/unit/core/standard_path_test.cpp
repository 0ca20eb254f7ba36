#include "core/standard_path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;
using ProcMgr::StandardizationPath;

class StandardPath : public testing::Test {
 protected:
  StandardPath() {
    std::string pattern = (fs::temp_directory_path() / "standard_path.XXXXXX").string();
    dir_ = fs::canonical(mkdtemp(pattern.data())).string();
    fs::create_directory(dir_ + "/folder");
    std::ofstream(dir_ + "/file") << "text";
    fs::create_symlink("../file", dir_ + "/folder/link");
    fs::create_symlink("loop", dir_ + "/loop");
  }
  ~StandardPath() override { fs::remove_all(dir_); }

  std::string dir_;
};

TEST_F(StandardPath, ResolvesWhatExistsAndLeavesTheOutputOtherwise) {
  using namespace std::string_literals;
  struct Case {
    const char* what;
    std::string input;
    std::string expected;  // Empty: refused.
  };
  const Case cases[] = {
      {"plain", dir_ + "/file", dir_ + "/file"},
      {"dots and slashes", dir_ + "//folder/./..///file", dir_ + "/file"},
      {"symbolic link", dir_ + "/folder/link", dir_ + "/file"},
      {"directory", dir_ + "/folder/", dir_ + "/folder"},
      {"4096 bytes", std::string(4096, '/'), "/"},
      {"4097 bytes", std::string(4097, '/'), ""},
      {"empty", "", ""},
      {"missing", dir_ + "/missing", ""},
      {"below a file", dir_ + "/file/below", ""},
      {"circle of links", dir_ + "/loop", ""},
      {"zero byte", dir_ + "/file\0.yaml"s, ""},
  };
  for (const Case& c : cases) {
    std::string output = "untouched";
    EXPECT_EQ(StandardizationPath(c.input, output), !c.expected.empty()) << c.what;
    EXPECT_EQ(output, c.expected.empty() ? "untouched" : c.expected) << c.what;
  }
}

TEST_F(StandardPath, RelativePathsStartAtTheWorkingDirectory) {
  fs::current_path(dir_ + "/folder");
  std::string output;
  ASSERT_TRUE(StandardizationPath("link", output));
  EXPECT_EQ(output, dir_ + "/file");
}

TEST_F(StandardPath, InputAndOutputMayBeOneString) {
  std::string path = dir_ + "/folder/link";
  ASSERT_TRUE(StandardizationPath(path, path));
  EXPECT_EQ(path, dir_ + "/file");
}

}  // namespace
