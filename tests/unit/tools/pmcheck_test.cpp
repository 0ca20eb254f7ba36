// The checker as an operator runs it: what it prints where, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using ::testing::HasSubstr;

using PmTest::PmCheck;
using PmTest::Result;

TEST_F(PmCheck, GoodFileGivesItsStartOrder) {
  folder_.Write("good.yaml", R"(applications:
  - {appName: c, binPath: /b, uid: 1, gid: 1, dependList: [a, b]}
  - {appName: b, binPath: /b, uid: 1, gid: 1, dependList: [a]}
  - {appName: a, binPath: /b, uid: 1, gid: 1, unknwon: 1}
  - {appName: z, binPath: /b, uid: 1, gid: 1, match: {board: x=y}}
)");
  const char* const warning =
      "good.yaml:4:47: warning: the key \"unknwon\" is unknown and ignored; the nearest known is "
      "\"";
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
  folder_.Write("none.yaml", "applications: []\n");
  const struct {
    const char* arguments;
    const char* out;
    const char* err;
  } cases[] = {
      {"faulty.yaml", "faulty.yaml: faulty\n",
       "faulty.yaml:2:27: error: binPath is \"b\"; it must be an absolute path or a pattern\n"},
      {"missing.yaml", "missing.yaml: faulty\n",
       "missing.yaml:1:1: error: \"missing.yaml\" can't be read (No such file or directory); it "
       "must be a "
       "readable file\n"},
      {"unmet.yaml",
       "unmet.yaml: 1 application\nround 1: a\\x1b\n"
       "unmet: a\\x1b depends on ghost, which isn't there\n",
       "unmet.yaml:2:64: error: \"a\\x1b\" depends on \"ghost\", which isn't there, so it is never "
       "started\n"},
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
  for (const char* const arguments :
       {"", "--nonsense", "--match board none.yaml", "--root . none.yaml"}) {
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
