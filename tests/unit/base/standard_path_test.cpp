#include "base/standard_path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using ProcMgr::StandardizationPath;

TEST(StandardPath, ResolvesWhatExistsAndLeavesTheOutputOtherwise) {
  using namespace std::string_literals;
  const PmTest::TempFolder folder;
  const std::string file = folder.Write("file", "text");
  const std::string below = folder.Path("folder");
  fs::create_directory(below);
  fs::create_symlink("../file", below + "/link");
  fs::create_symlink("loop", folder.Path("loop"));
  fs::current_path(below);
  const struct {
    const char* what;
    std::string input;
    std::string expected;  // Empty: refused.
  } cases[] = {
      {"dots and slashes", below + "//./..///file", file},
      {"symbolic link", below + "/link", file},
      {"directory", below + "/", below},
      {"relative", "link", file},
      {"4096 bytes", std::string(4096, '/'), "/"},
      {"4097 bytes", std::string(4097, '/'), ""},
      {"empty", "", ""},
      {"missing", folder.Path("missing"), ""},
      {"below a file", file + "/below", ""},
      {"circle of links", folder.Path("loop"), ""},
      {"zero byte", file + "\0.yaml"s, ""},
  };
  for (const auto& c : cases) {
    std::string output = "untouched";
    EXPECT_EQ(StandardizationPath(c.input, output), !c.expected.empty()) << c.what;
    EXPECT_EQ(output, c.expected.empty() ? "untouched" : c.expected) << c.what;
  }
  std::string path = below + "/link";
  ASSERT_TRUE(StandardizationPath(path, path)) << "input and output may be one string";
  EXPECT_EQ(path, file);
}

}  // namespace
