// Service files as files: all faults told, includes, hostile content, several threads.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/small_file.h"
#include "tests/unit/platform/manifest_fixture.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ManifestFiles = ManifestTest;

TEST_F(ManifestFiles, AllFaultsOfAllFilesAreTold) {
  folder_.Write("bad.yaml",
                "- {appName: x}\n- {appName: y, binPath: /b, uid: 1, gid: 1, nice: q}\n");
  manifests_.clear();
  EXPECT_NE(ParseText(R"(applications:
  - appName: a
    binPath: b
    uid: -3
  - include: bad.yaml
  - include: missing.yaml
  - {appName: c, binPath: /b, uid: 1, gid: 1}
  - {appName: c, binPath: /b, uid: 1, gid: 1}
)"),
            0);
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("m.yaml:2:5: the application has no gid"),
                                  HasSubstr("m.yaml:3:14: binPath is \"b\""),
                                  HasSubstr("m.yaml:4:10: uid is the number -3"),
                                  HasSubstr("bad.yaml:1:3: the application has no binPath"),
                                  HasSubstr("bad.yaml:1:3: the application has no uid"),
                                  HasSubstr("bad.yaml:1:3: the application has no gid"),
                                  HasSubstr("bad.yaml:2:51: nice is \"q\""),
                                  "E m.yaml:6:14: \"missing.yaml\" can't be read (No such file or "
                                  "directory); it must be a readable file",
                                  "E m.yaml:8:15: the application \"c\" is already described at "
                                  "m.yaml:7:15; each application must be described once"));
  EXPECT_THAT(manifests_, IsEmpty());
}

TEST_F(ManifestFiles, FailureLeavesTheListAlone) {
  ASSERT_EQ(ParseText(kBasics), 0);
  Manifests list = manifests_;
  folder_.Write("m.yaml", std::string(kBasics) + "  - {appName: b}\n");
  EXPECT_NE(
      ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, folder_.Path("m.yaml"), list, {}),
      0);
  ASSERT_THAT(list, SizeIs(1));
  folder_.Write("m.yaml", "applications: [{appName: z, binPath: /b, uid: 1, gid: 1}]");
  EXPECT_EQ(
      ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, folder_.Path("m.yaml"), list, {}),
      0);
  ASSERT_THAT(list, SizeIs(2));
  EXPECT_EQ(list[1].GetAppName(), "z");
}

TEST_F(ManifestFiles, IncludedApplicationsStandInTheirPlace) {
  folder_.Write("sub/one.yaml",
                "appName: one\nbinPath: /1\nuid: 1\ngid: 1\n"
                "startupEntryPath: e.yaml\n");
  folder_.Write("sub/list.yaml", R"(applications:
  - {appName: two, binPath: /2, uid: 1, gid: 1}
  - include: ../three.yaml
)");
  folder_.Write("three.yaml", "- {appName: three, binPath: /3, uid: 1, gid: 1}\n");
  ASSERT_EQ(ParseText("applications:\n  - include: sub/one.yaml\n  - include: " +
                      folder_.Path("sub/list.yaml") +
                      "\n  - {appName: four, binPath: /4, uid: 1, gid: 1}\n"),
            0);
  EXPECT_THAT(Names(), ElementsAre("one", "two", "three", "four"));
  EXPECT_EQ(manifests_[0].GetCfgPath(), folder_.Path("sub/one.yaml"));
  EXPECT_EQ(manifests_[0].GetStartupEntryPath(), folder_.Path("sub/e.yaml"));
  EXPECT_EQ(manifests_[2].GetCfgPath(), folder_.Path("three.yaml"));
  EXPECT_EQ(manifests_[3].GetCfgPath(), folder_.Path("m.yaml"));
}

TEST_F(ManifestFiles, PathsGoFromTheFileThatALinkLeadsTo) {
  folder_.Write("real/m.yaml", "applications: [include: i.yaml]\n");
  folder_.Write("real/i.yaml", "appName: i\nbinPath: /1\nuid: 1\ngid: 1\n");
  ASSERT_EQ(symlink("real/m.yaml", folder_.Path("link.yaml").c_str()), 0);
  ASSERT_EQ(Parse("link.yaml"), 0);
  EXPECT_EQ(manifests_[0].GetCfgPath(), folder_.Path("real/i.yaml"));
}

TEST_F(ManifestFiles, OneApplicationAloneIsNoFirstFile) {
  EXPECT_NE(ParseText("appName: one\nbinPath: /1\nuid: 1\ngid: 1\n"), 0);
  EXPECT_THAT(lines_, ElementsAre("E m.yaml:1:1: the file has no list of applications; it must "
                                  "begin with \"applications:\""));
}

TEST_F(ManifestFiles, IncludesNestEightDeep) {
  folder_.Write("f9.yaml", "applications: []\n");
  for (int i = 8; i >= 0; --i) {
    folder_.Write("f" + std::to_string(i) + ".yaml",
                  "applications:\n  - include: f" + std::to_string(i + 1) + ".yaml\n");
  }
  EXPECT_EQ(Parse("f1.yaml"), 0);
  EXPECT_NE(Parse("f0.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre("E f8.yaml:2:14: this include is the ninth in a row; includes "
                                  "may nest 8 deep"));
}

TEST_F(ManifestFiles, CircleOfIncludesIsNamed) {
  folder_.Write("a.yaml", "applications:\n  - include: b.yaml\n");
  folder_.Write("b.yaml", "applications:\n  - include: ./a.yaml\n");
  EXPECT_NE(Parse("a.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre("E b.yaml:2:14: the includes go in a circle: a.yaml -> b.yaml "
                                  "-> a.yaml; take one of them out"));
}

// Nine files that each include the next one many times over: 50 to the power of 8 loads.
TEST_F(ManifestFiles, TreeOfIncludesIsCutOff) {
  folder_.Write("f8.yaml", "applications: []\n");
  for (int i = 7; i >= 0; --i) {
    std::string text = "applications:\n";
    for (int k = 0; k < 50; ++k) {
      text += "- include: f" + std::to_string(i + 1) + ".yaml\n";
    }
    folder_.Write("f" + std::to_string(i) + ".yaml", text);
  }
  EXPECT_NE(Parse("f0.yaml"), 0);
  EXPECT_THAT(lines_[0], HasSubstr("too many"));
}

TEST_F(ManifestFiles, FileThatIsNoServiceFileIsOneFault) {
  std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
  for (int i = 1; i < 10; ++i) {
    const std::string before = "*a" + std::to_string(i - 1);
    bomb += "a" + std::to_string(i) + ": &a" + std::to_string(i) + " [" + before;
    for (int k = 1; k < 10; ++k) {
      bomb += ", " + before;
    }
    bomb += "]\n";
  }
  const struct {
    const char* name;
    std::string text;
    const char* fault;
  } cases[] = {
      {"empty", "", "1:1: the file holds nothing; it must hold a YAML mapping"},
      {"list", "- a\n", "1:1: the file is a list; it must be a mapping"},
      {"other mapping", "a: b\n",
       "1:1: the file has no list of applications; it must begin with \"applications:\""},
      {"no list", "applications:\n  a: b\n", "2:3: applications is a mapping; it must be a list"},
      {"two documents", "applications: []\n---\nx: y\n",
       "2:1: a second document begins; one file holds one document"},
      {"syntax", "applications:\n  - {appName: a\n  - b\n", "this isn't YAML: "},
      {"tab", "applications:\n\t- a\n", "this isn't YAML: "},
      {"unknown alias", "applications: *a\n", "this isn't YAML: "},
      {"zero byte", std::string("applications: []\n#\0", 19), "2:2: the byte \"\\x00\""},
      {"escape", "a: \"\x1b[2J\"\n", "1:5: the byte \"\\x1b\""},
      {"latin 1", "a: caf\xe9\n", "1:7: the byte \"\\xe9\""},
      {"overlong", "# \xc0\xaf\n", "1:3: the byte \"\\xc0\""},
      {"surrogate", "# \xed\xa0\x80\n", "1:3: the byte \"\\xed\""},
      {"cut off", "# \xe2\x82", "1:3: the byte \"\\xe2\""},
      {"mapping as key", "applications: []\n? {a: b}\n: c\n",
       "2:3: a key is a mapping; it must be a single word"},
      {"deep list", std::string(500000, '['), "collections nest deeper than 64 levels"},
      {"deep block",
       [] {
         std::string text;
         for (int i = 0; i < 500; ++i) {
           text += std::string(static_cast<std::size_t>(i), ' ') + "a:\n";
         }
         return text;
       }(),
       "collections nest deeper than 64 levels"},
      {"alias bomb", bomb, "the aliases of this file write out to more than"},
      {"alias of itself", "a: &a [*a]\n",
       "1:8: an alias stands inside of the value that it refers to"},
      {"too large", std::string(kConfigFileLimit + 1, '#'),
       "1:1: \"m.yaml\" is larger than 1048576 bytes; divide it into files that it includes"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(ParseText(c.text), 0) << c.name;
    ASSERT_THAT(lines_, SizeIs(1)) << c.name;
    EXPECT_THAT(lines_[0], ::testing::StartsWith("E m.yaml:")) << c.name;
    EXPECT_THAT(lines_[0], HasSubstr(c.fault)) << c.name;
    EXPECT_LT(lines_[0].size(), 600U) << c.name;
  }
}

TEST_F(ManifestFiles, PathThatIsNoFileIsOneFault) {
  ASSERT_EQ(mkfifo(folder_.Path("fifo").c_str(), 0600), 0);
  const struct {
    std::string path;
    const char* fault;
  } cases[] = {
      {folder_.Path("none.yaml"), "none.yaml:1:1: \"none.yaml\" can't be read (No such file"},
      {folder_.Path("fifo"), "fifo:1:1: the file holds nothing"},
      {"/proc", "/proc:1:1: \"/proc\" can't be read (Is a directory)"},
      {"/dev/zero", "/dev/zero:1:1: \"/dev/zero\" is larger than 1048576 bytes"},
      {std::string(5000, 'x'), "can't be read (File name too long)"},
      {"", "can't be read (No such file"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(ParsePath(c.path), 0) << c.path;
    EXPECT_THAT(lines_, ElementsAre(HasSubstr(c.fault))) << c.path;
  }
}

TEST_F(ManifestFiles, HostileTextsStayOutOfTheLog) {
  EXPECT_NE(ParseText(R"(applications:
  - {appName: "a\e[31m\n\u202E", binPath: ")" +
                      std::string(100000, 'x') + R"(", uid: "\x07", gid: 1, "k\ny": 1}
)"),
            0);
  ASSERT_THAT(lines_, SizeIs(3));
  for (const std::string& line : lines_) {
    EXPECT_LT(line.size(), 600U);
    EXPECT_EQ(line.find_first_of("\x1b\n\x07\xe2"), std::string::npos) << line;
  }
}

TEST_F(ManifestFiles, LinesOfOneLoadAreBounded) {
  std::string text = "applications:\n";
  for (int i = 0; i < 5000; ++i) {
    text += "- 1\n";
  }
  EXPECT_NE(ParseText(text), 0);
  ASSERT_THAT(lines_, SizeIs(1001));
  EXPECT_EQ(lines_.back(),
            "E 4000 more lines about these files are left out; correct what the first ones tell");
}

TEST_F(ManifestFiles, ThreadsParseAndAskAtOnce) {
  folder_.Write("m.yaml", std::string(kBasics) + "    dependList: [other]\n" +
                              "  - {appName: other, binPath: /b, uid: 1, gid: 1}\n");
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &failures] {
      ParseAndDepend& library = ParseAndDepend::Instance();
      for (int i = 0; i < 100; ++i) {
        Manifests list;
        DependGraph graph;
        const int parsed = library.ParseYaml(ParamType::kDefault, folder_.Path("m.yaml"), list, {});
        library.GetStartGraph({"cam", "other"}, graph);
        const std::string id = std::to_string(t) + "-" + std::to_string(i % 7);
        if (parsed != 0 || graph.GetNoDependVertices() != std::set<std::string>{"other"} ||
            !library.IsDynamicParaMatch(id + "${[a-z]+}", id + "x")) {
          ++failures;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace ProcMgr
