// Service files as files: all faults told, includes, hostile content, several threads.

#include "base/small_file.h"
#include "tests/support/threads.h"
#include "tests/unit/platform/manifest_fixture.h"

namespace ProcMgr {
namespace {

using ManifestFiles = ManifestTest;

TEST_F(ManifestFiles, AllFaultsOfAllFilesAreToldAndTheListIsLeftAlone) {
  ASSERT_EQ(ParseText(kBasics), 0);
  folder_.Write("bad.yaml",
                "- {appName: x}\n- {appName: y, binPath: /b, uid: 1, gid: 1, nice: q}\n");
  folder_.Write("m.yaml", R"(applications:
  - appName: a
    binPath: b
    uid: -3
  - include: bad.yaml
  - include: missing.yaml
  - {appName: c, binPath: /b, uid: 1, gid: 1}
  - {appName: c, binPath: /b, uid: 1, gid: 1}
)");
  EXPECT_NE(Parse("m.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("m.yaml:2:5: the application has no gid"),
                                  HasSubstr("m.yaml:3:14: binPath is \"b\""),
                                  HasSubstr("m.yaml:4:10: uid is the number -3"),
                                  HasSubstr("bad.yaml:1:3: the application has no binPath"),
                                  HasSubstr("bad.yaml:1:3: the application has no uid"),
                                  HasSubstr("bad.yaml:1:3: the application has no gid"),
                                  HasSubstr("bad.yaml:2:51: nice is \"q\""),
                                  HasSubstr("m.yaml:6:14: \"missing.yaml\" can't be read"),
                                  "E m.yaml:8:15: the application \"c\" is already described at "
                                  "m.yaml:7:15; each application must be described once"));
  EXPECT_THAT(Names(), ElementsAre("cam"));
  // A good load adds to the list.
  folder_.Write("m.yaml", "applications: [{appName: z, binPath: /b, uid: 1, gid: 1}]");
  EXPECT_EQ(Parse("m.yaml"), 0);
  EXPECT_THAT(Names(), ElementsAre("cam", "z"));
}

// The first file is reached through a link; paths go from where it leads to.
TEST_F(ManifestFiles, IncludedApplicationsStandInTheirPlace) {
  folder_.Write("sub/one.yaml",
                "appName: one\nbinPath: /1\nuid: 1\ngid: 1\nstartupEntryPath: e.yaml\n");
  folder_.Write("sub/list.yaml", R"(applications:
  - {appName: two, binPath: /2, uid: 1, gid: 1}
  - include: ../three.yaml
)");
  folder_.Write("three.yaml", "- {appName: three, binPath: /3, uid: 1, gid: 1}\n");
  folder_.Write("sub/first.yaml", "applications:\n  - include: one.yaml\n  - include: " +
                                      folder_.Path("sub/list.yaml") +
                                      "\n  - {appName: four, binPath: /4, uid: 1, gid: 1}\n");
  ASSERT_EQ(symlink("sub/first.yaml", folder_.Path("link.yaml").c_str()), 0);
  ASSERT_EQ(Parse("link.yaml"), 0);
  ASSERT_THAT(Names(), ElementsAre("one", "two", "three", "four"));
  EXPECT_EQ(manifests_[0].GetCfgPath(), folder_.Path("sub/one.yaml"));
  EXPECT_EQ(manifests_[0].GetStartupEntryPath(), folder_.Path("sub/e.yaml"));
  EXPECT_EQ(manifests_[2].GetCfgPath(), folder_.Path("three.yaml"));
  EXPECT_EQ(manifests_[3].GetCfgPath(), folder_.Path("sub/first.yaml"));
}

TEST_F(ManifestFiles, IncludesAreBounded) {
  // f0.yaml to f9.yaml, of which each includes the next one `copies` times.
  const auto writeChain = [this](int copies) {
    folder_.Write("f9.yaml", "applications: []\n");
    for (int i = 8; i >= 0; --i) {
      std::string text = "applications:\n";
      for (int k = 0; k < copies; ++k) {
        text += "  - include: f" + std::to_string(i + 1) + ".yaml\n";
      }
      folder_.Write("f" + std::to_string(i) + ".yaml", text);
    }
  };
  writeChain(1);
  EXPECT_EQ(Parse("f1.yaml"), 0);
  EXPECT_NE(Parse("f0.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre("E f8.yaml:2:14: this include is the ninth in a row; includes "
                                  "may nest 8 deep"));
  // 50 to the power of 8 loads.
  writeChain(50);
  EXPECT_NE(Parse("f1.yaml"), 0);
  EXPECT_THAT(lines_, AllOf(Not(IsEmpty()), Each(HasSubstr("too many"))));
  folder_.Write("a.yaml", "applications:\n  - include: b.yaml\n");
  folder_.Write("b.yaml", "applications:\n  - include: ./a.yaml\n");
  EXPECT_NE(Parse("a.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre("E b.yaml:2:14: the includes go in a circle: a.yaml -> b.yaml "
                                  "-> a.yaml; take one of them out"));
}

TEST_F(ManifestFiles, FileThatIsNoServiceFileIsOneFault) {
  std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
  std::string indicators;
  for (int i = 0; i < 100000; ++i) {
    indicators += "- ? ";
  }
  std::string deep;
  for (int i = 1; i < 10; ++i) {
    const std::string name = "a" + std::to_string(i);
    bomb.append(name).append(": &").append(name).append(" [");
    for (int k = 0; k < 10; ++k) {
      bomb += "*a" + std::to_string(i - 1) + ", ";
    }
    bomb += "]\n";
  }
  for (std::size_t i = 0; i < 500; ++i) {
    deep += std::string(i, ' ') + "a:\n";
  }
  const struct {
    const char* name;
    std::string text;
    const char* fault;
  } cases[] = {
      {"empty", "", "1:1: the file holds nothing; it must hold a YAML mapping"},
      {"list", "- a\n", "1:1: the file is a list; it must be a mapping"},
      {"one application", "appName: one\nbinPath: /1\nuid: 1\ngid: 1\n",
       "1:1: the file has no list of applications; it must begin with \"applications:\""},
      {"no list", "applications:\n  a: b\n", "2:3: applications is a mapping; it must be a list"},
      {"two documents", "applications: []\n---\nx: y\n",
       "2:1: a second document begins; one file holds one document"},
      {"syntax", "applications:\n  - {appName: a\n  - b\n", "this isn't YAML: "},
      {"unknown alias", "applications: *a\n", "this isn't YAML: "},
      {"zero byte", std::string("applications: []\n#\0", 19), "2:2: the byte \"\\x00\""},
      {"escape", "a: \"\x1b[2J\"\n", "1:5: the byte \"\\x1b\""},
      {"overlong", "# \xc0\xaf\n", "1:3: the byte \"\\xc0\""},
      {"surrogate", "# \xed\xa0\x80\n", "1:3: the byte \"\\xed\""},
      {"cut off", "# \xe2\x82", "1:3: the byte \"\\xe2\""},
      {"mapping as key", "applications: []\n? {a: b}\n: c\n",
       "2:3: a key is a mapping; it must be a single word"},
      {"deep list", std::string(500000, '['), "collections nest deeper than 64 levels"},
      {"deep braces", "# {\n" + std::string(900000, '{'),
       "2:1024: collections nest deeper than 64 levels"},
      {"deep line", "a:\n  " + indicators, "2:131: collections nest deeper than 64 levels"},
      {"deep block", deep, "collections nest deeper than 64 levels"},
      {"alias bomb", bomb, "the aliases of this file write out to more than"},
      {"alias of itself", "a: &a [*a]\n",
       "1:8: an alias stands inside of the value that it refers to"},
      {"too large", std::string(kConfigFileLimit + 1, '#'),
       "1:1: \"m.yaml\" is larger than 1048576 bytes; divide it into files that it includes"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(ParseText(c.text), 0) << c.name;
    EXPECT_THAT(lines_,
                ElementsAre(AllOf(StartsWith("E m.yaml:"), HasSubstr(c.fault), SizeIs(Lt(600U)))))
        << c.name;
  }
}

TEST_F(ManifestFiles, HostileTextsStayOutOfTheLog) {
  EXPECT_NE(ParseText(R"(applications:
  - {appName: "a\e[31m\n\u202E", binPath: ")" +
                      std::string(100000, 'x') + R"(", uid: "\x07", gid: 1, "k\ny": 1}
)"),
            0);
  EXPECT_THAT(lines_, SizeIs(3));
  EXPECT_THAT(lines_, Each(AllOf(SizeIs(Lt(600U)), Not(ContainsRegex("[^ -~]")))));
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
  PmTest::OnThreads(4, [this](int thread) {
    ParseAndDepend& library = ParseAndDepend::Instance();
    for (int i = 0; i < 200; ++i) {
      Manifests list;
      DependGraph graph;
      EXPECT_EQ(library.ParseYaml(ParamType::kDefault, folder_.Path("m.yaml"), list, {}), 0);
      library.GetStartGraph({"cam", "other"}, graph);
      EXPECT_THAT(graph.GetNoDependVertices(), ElementsAre("other"));
      // More patterns than are kept compiled, each of them twice.
      const std::string id = std::to_string(thread) + "-" + std::to_string(i / 2);
      EXPECT_TRUE(library.IsDynamicParaMatch(id + "${[a-z]+}", id + "x"));
      EXPECT_FALSE(library.IsDynamicParaMatch(id + "${[a-z]+}", id + "1"));
    }
  });
}

}  // namespace
}  // namespace ProcMgr
