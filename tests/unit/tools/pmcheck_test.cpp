// The checker as an operator runs it: what it prints where, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/temp_folder.h"

namespace {

using ::testing::HasSubstr;

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

class PmCheck : public ::testing::Test {
 protected:
  // Runs it in the folder, so that the lines hold short names.
  Result Run(const std::string& arguments) {
    const std::string command =
        "cd '" + folder_.Path("") + "' && '" PMCHECK "' " + arguments + " 2>err";
    Result result;
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) {
      ADD_FAILURE() << "no shell";
      return result;
    }
    std::array<char, 4096> block{};
    for (std::size_t got = 0; (got = std::fread(block.data(), 1, block.size(), pipe)) > 0;) {
      result.out.append(block.data(), got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ostringstream err;
    err << std::ifstream(folder_.Path("err")).rdbuf();
    result.err = err.str();
    return result;
  }

  PmTest::TempFolder folder_;
};

TEST_F(PmCheck, GoodFileGivesItsStartOrder) {
  folder_.Write("good.yaml", R"(applications:
  - {appName: c, binPath: /b, uid: 1, gid: 1, dependList: [a, b]}
  - {appName: b, binPath: /b, uid: 1, gid: 1, dependList: [a]}
  - {appName: a, binPath: /b, uid: 1, gid: 1, unknwon: 1}
  - {appName: z, binPath: /b, uid: 1, gid: 1, match: {board: x=y}}
)");
  const char* const warning =
      "good.yaml:4:47: the key \"unknwon\" is unknown and ignored; the nearest known is \"";
  Result result = Run("good.yaml");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "good.yaml: 3 applications\nround 1: a\nround 2: b\nround 3: c\n");
  EXPECT_THAT(result.err, HasSubstr(warning));
  result = Run("--match board=x=y good.yaml");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "good.yaml: 4 applications\nround 1: a z\nround 2: b\nround 3: c\n");
}

TEST_F(PmCheck, FaultsOfAFileOrOfItsOrderGiveOne) {
  folder_.Write("faulty.yaml", "applications:\n  - {appName: a, binPath: b, uid: 1, gid: 1}\n");
  folder_.Write("unmet.yaml", R"(applications:
  - {appName: "a\e", binPath: /b, uid: 1, gid: 1, dependList: [ghost]}
)");
  folder_.Write("circle.yaml", R"(applications:
  - {appName: a, binPath: /b, uid: 1, gid: 1, dependList: [b]}
  - {appName: b, binPath: /b, uid: 1, gid: 1, dependList: [a]}
)");
  folder_.Write("none.yaml", "applications: []\n");
  const struct {
    const char* arguments;
    const char* out;
    const char* err;
  } cases[] = {
      {"faulty.yaml", "faulty.yaml: faulty\n",
       "faulty.yaml:2:27: binPath is \"b\"; it must be an absolute path or a pattern\n"},
      {"missing.yaml", "missing.yaml: faulty\n",
       "missing.yaml:1:1: \"missing.yaml\" can't be read (No such file or directory); it must be a "
       "readable file\n"},
      {"unmet.yaml",
       "unmet.yaml: 1 application\nround 1: a\\x1b\n"
       "unmet: a\\x1b depends on ghost, which isn't there\n",
       ""},
      {"circle.yaml", "circle.yaml: 2 applications\nround 1: a b\n", "a -> b -> a\n"},
      // A good file behind a faulty one is checked, and doesn't make up for it.
      {"missing.yaml none.yaml", "missing.yaml: faulty\nnone.yaml: 0 applications\n", nullptr},
  };
  for (const auto& c : cases) {
    const Result result = Run(c.arguments);
    EXPECT_EQ(result.status, 1) << c.arguments;
    EXPECT_EQ(result.out, c.out) << c.arguments;
    if (c.err != nullptr) {
      EXPECT_EQ(result.err, c.err) << c.arguments;
    }
  }
}

TEST_F(PmCheck, WrongUsageGivesTwoAndHelpNought) {
  folder_.Write("none.yaml", "applications: []\n");
  for (const char* const arguments : {"", "--nonsense", "--match board none.yaml"}) {
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_NE(result.err, "") << arguments;
    EXPECT_EQ(result.out, "") << arguments;
  }
  const Result help = Run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Exit status"));
}

}  // namespace
