// Service files: values and defaults, the place and text of every kind of fault, includes, match.
#include "app/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/small_file.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using Manifests = std::vector<ApplicationManifest>;
using MatchData = std::map<std::string, std::string>;

// The four required keys, each on a line of its own: lines 2 to 5 behind "applications:".
constexpr const char* kBasics = R"(applications:
  - appName: cam
    binPath: /bin/cam
    uid: 7
    gid: 8
)";

class ManifestTest : public ::testing::Test {
 protected:
  // Parses the file `name` of the folder. The log lines are in lines_, without the folder.
  int Parse(const std::string& name, const MatchData& match = {}) {
    return ParsePath(folder_.Path(name), match);
  }

  int ParsePath(const std::string& path, const MatchData& match = {}) {
    manifests_.clear();
    const int result =
        ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, path, manifests_, match);
    lines_ = log_.Take();
    const std::string prefix = folder_.Path("");
    for (std::string& line : lines_) {
      for (std::size_t at = line.find(prefix); at != std::string::npos; at = line.find(prefix)) {
        line.erase(at, prefix.size());
      }
    }
    return result;
  }

  // The same for a file of this text, "m.yaml".
  int ParseText(const std::string& text, const MatchData& match = {}) {
    folder_.Write("m.yaml", text);
    return Parse("m.yaml", match);
  }

  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const ApplicationManifest& manifest : manifests_) {
      names.push_back(manifest.GetAppName());
    }
    return names;
  }

  PmTest::TempFolder folder_;
  PmTest::LogCapture log_;
  Manifests manifests_;
  std::vector<std::string> lines_;
};

TEST_F(ManifestTest, KeysLeftOutHaveTheirDefaults) {
  ASSERT_EQ(ParseText(kBasics), 0);
  ASSERT_THAT(lines_, IsEmpty());
  ASSERT_THAT(manifests_, SizeIs(1));
  const ApplicationManifest& m = manifests_[0];
  EXPECT_EQ(m.GetAppName(), "cam");
  EXPECT_EQ(m.GetBinPath(), "/bin/cam");
  EXPECT_EQ(m.GetUid(), 7U);
  EXPECT_EQ(m.GetGid(), 8U);
  EXPECT_EQ(m.GetCfgPath(), folder_.Path("m.yaml"));
  EXPECT_THAT(m.GetArguments(), IsEmpty());
  EXPECT_THAT(m.GetEnvArgv(), IsEmpty());
  EXPECT_THAT(m.GetDependList(), IsEmpty());
  EXPECT_THAT(m.GetCoreAffinity(), IsEmpty());
  EXPECT_THAT(m.GetSharepoolGroups(), IsEmpty());
  for (const std::string& text :
       {m.GetResGroupName(), m.GetCpuset(), m.GetSecurityCon(), m.GetSoName(), m.GetSoPath(),
        m.GetProcessBindPath(), m.GetStartupEntryPath(), m.GetVfIdPattern()}) {
    EXPECT_EQ(text, "");
  }
  EXPECT_EQ(m.GetRestart(), "no");
  EXPECT_EQ(m.GetTermTimeOut(), 5000U);
  EXPECT_EQ(m.GetNice(), 0);
  EXPECT_EQ(m.GetNodeType(), 0);
  EXPECT_EQ(m.GetStartupPriority(), -1);
  EXPECT_EQ(m.GetVfId(), -1);
  EXPECT_TRUE(m.GetIsForceTerm());
  for (const bool flag : {m.GetIsReporting(), m.GetIsSetRtPrio(), m.GetIsDelayCoreAffinity(),
                          m.GetIsSo(), m.GetHeartBeatSwitch(), m.GetIsDynamicPara()}) {
    EXPECT_FALSE(flag);
  }
}

TEST_F(ManifestTest, EveryKeyReachesItsGetter) {
  ASSERT_EQ(ParseText(R"(applications:
  - appName: "7"
    binPath: /b
    uid: root
    gid: 0x10
    arguments: [-v, 1.50, true, ~, "", null, 0x1F]
    envArgv: {A: 1, EMPTY: , null: x, "quoted": "a=b"}
    dependList: [b, a, b]
    coreAffinity: [255, 2-3, "5", 3]
    resGroupName: grp
    cpuset: set
    restart: on-until-succeed
    termTimeOut: 4294967295
    nice: -20
    nodeType: -2147483648
    startupPriority: 2147483647
    vfId: 3
    startupEntryPath: entry/../start.yaml
    securityCon: u:r:t
    soName: s.so
    soPath: /lib
    processBindPath: /bind
    sharepoolGroups: [{groupName: g, permission: rw}, {groupName: h}]
    isReporting: true
    isForceTerm: false
    isSetRtPrio: true
    isDelayCoreAffinity: true
    isSo: true
    heartBeatSwitch: true
    isDynamicPara: true
)"),
            0);
  EXPECT_THAT(lines_, IsEmpty());
  ASSERT_THAT(manifests_, SizeIs(1));
  const ApplicationManifest& m = manifests_[0];
  EXPECT_EQ(m.GetAppName(), "7");
  EXPECT_EQ(m.GetUid(), 0U);
  EXPECT_EQ(m.GetGid(), 16U);
  EXPECT_THAT(m.GetArguments(), ElementsAre("-v", "1.50", "true", "~", "", "null", "0x1F"));
  EXPECT_THAT(m.GetEnvArgv(), ElementsAre(Pair("A", "1"), Pair("EMPTY", ""), Pair("null", "x"),
                                          Pair("quoted", "a=b")));
  EXPECT_THAT(m.GetDependList(), ElementsAre("a", "b"));
  EXPECT_THAT(m.GetCoreAffinity(), ElementsAre(255, 2, 3, 5));
  EXPECT_EQ(m.GetResGroupName(), "grp");
  EXPECT_EQ(m.GetCpuset(), "set");
  EXPECT_EQ(m.GetRestart(), "on-until-succeed");
  EXPECT_EQ(m.GetTermTimeOut(), 4294967295U);
  EXPECT_EQ(m.GetNice(), -20);
  EXPECT_EQ(m.GetNodeType(), -2147483648);
  EXPECT_EQ(m.GetStartupPriority(), 2147483647);
  EXPECT_EQ(m.GetVfId(), 3);
  EXPECT_EQ(m.GetStartupEntryPath(), folder_.Path("start.yaml"));
  EXPECT_EQ(m.GetSecurityCon(), "u:r:t");
  EXPECT_EQ(m.GetSoName(), "s.so");
  EXPECT_EQ(m.GetSoPath(), "/lib");
  EXPECT_EQ(m.GetProcessBindPath(), "/bind");
  EXPECT_THAT(m.GetSharepoolGroups(),
              ElementsAre(SharepoolGroupsInfo{"g", "rw"}, SharepoolGroupsInfo{"h", ""}));
  EXPECT_FALSE(m.GetIsForceTerm());
  for (const bool flag : {m.GetIsReporting(), m.GetIsSetRtPrio(), m.GetIsDelayCoreAffinity(),
                          m.GetIsSo(), m.GetHeartBeatSwitch(), m.GetIsDynamicPara()}) {
    EXPECT_TRUE(flag);
  }
}

TEST_F(ManifestTest, PatternMakesAnApplicationDynamic) {
  const struct {
    const char* line;
    bool isDynamic;
  } cases[] = {
      {"arguments: [a, 'x${[0-9]+}']", true},
      {"envArgv: {A: '${a|b}'}", true},
      {"vfId: ${[0-9]{1,2}}", true},
      {"vfId: 4", false},
      {"resGroupName: '${a}'", false},
      {"envArgv: {'${A}': b}", false},
      {"arguments: ['${a}']\n    isDynamicPara: false", false},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(ParseText(std::string(kBasics) + "    " + c.line + "\n"), 0) << c.line;
    EXPECT_EQ(manifests_[0].GetIsDynamicPara(), c.isDynamic) << c.line;
  }
  ASSERT_EQ(ParseText(R"(applications:
  - {appName: "w${[^/#]+}", binPath: "${/opt/.*}", uid: 1, gid: 1, vfId: "${1|2}"}
)"),
            0);
  EXPECT_TRUE(manifests_[0].GetIsDynamicPara());
  EXPECT_EQ(manifests_[0].GetVfIdPattern(), "${1|2}");
  EXPECT_EQ(manifests_[0].GetVfId(), -1);
}

// One line behind kBasics, hence line 6, and the one fault that it gives.
TEST_F(ManifestTest, FaultOfOneValueNamesPlaceAndRemedy) {
  const struct {
    const char* line;
    int column;
    const char* fault;
  } cases[] = {
      {"nice: 20", 11, "nice is the number 20; it must be a whole number from -20 to 19"},
      {"nice: -21", 11, "nice is the number -21; it must be a whole number from -20 to 19"},
      {"nice: \"3\"", 11, "nice is \"3\"; it must be a whole number from -20 to 19"},
      {"nice: 1.0", 11, "nice is the number 1.0; it must be a whole number from -20 to 19"},
      {"nice: [1]", 11, "nice is a list; it must be a whole number from -20 to 19"},
      {"nice:", 5, "nice is empty; it must be a whole number from -20 to 19"},
      {"nice: null", 11, "nice is empty; it must be a whole number from -20 to 19"},
      {"termTimeOut: -1", 18,
       "termTimeOut is the number -1; it must be a whole number from 0 to 4294967295"},
      {"termTimeOut: 99999999999999999999", 18,
       "termTimeOut is the number 99999999999999999999; it must be a whole number from 0 to "
       "4294967295"},
      {"startupPriority: -2", 22,
       "startupPriority is the number -2; it must be a whole number from -1 to 2147483647"},
      {"nodeType: 2147483648", 15,
       "nodeType is the number 2147483648; it must be a whole number from -2147483648 to "
       "2147483647"},
      {"isReporting: yes", 18, "isReporting is \"yes\"; it must be true or false"},
      {"isReporting: \"true\"", 18, "isReporting is \"true\"; it must be true or false"},
      {"isReporting: 1", 18, "isReporting is the number 1; it must be true or false"},
      {"restart: always", 14,
       "restart is \"always\"; it must be on-failure, on-forever, on-until-succeed or no"},
      {"restart: false", 14,
       "restart is the boolean false; it must be on-failure, on-forever, on-until-succeed or no"},
      {"cpuset: 1.5", 13,
       "cpuset is the number 1.5; it must be a text; put quotes around a text that looks like "
       "something else"},
      {"soName: {a: b}", 13,
       "soName is a mapping; it must be a text; put quotes around a text that looks like "
       "something else"},
      {"soName: \"a\\0b\"", 13, "soName is \"a\\x00b\"; it must be a text without a zero byte"},
      {"arguments: text", 16, "arguments is \"text\"; it must be a list"},
      {"arguments: [a, [b]]", 20, "an element of arguments is a list; it must be a single value"},
      {"arguments: [a, '${(}']", 20,
       "arguments: the expression \"(\" is broken: missing ): (; it must be a regular expression "
       "in RE2 syntax, with a backslash before a brace that has no partner"},
      {"envArgv: [a]", 14, "envArgv is a list; it must be a mapping"},
      {"envArgv: {'A=B': c}", 15,
       "a key of envArgv is \"A=B\"; it must be a variable's name, not empty and without \"=\""},
      {"envArgv: {'': c}", 15,
       "a key of envArgv is \"\"; it must be a variable's name, not empty and without \"=\""},
      {"dependList: [a, '']", 21,
       "an element of dependList is \"\"; it must be the name of an application"},
      {"coreAffinity: 0-1024", 19,
       "coreAffinity is \"0-1024\"; it must be a list of core numbers and ranges, like [0, 2-3] "
       "or \"0-3,7\""},
      {"coreAffinity: [0, 3-2]", 23,
       "an element of coreAffinity is \"3-2\"; it must be a core number from 0 to 1023 or a "
       "rising range like 2-3"},
      {"sharepoolGroups: [{permission: rw}]", 23,
       "the element of sharepoolGroups has no groupName; name the group"},
      {"vfId: abc", 11, "vfId is \"abc\"; it must be a whole number or a pattern"},
      {"vfId: ${[}", 11,
       "vfId: the expression \"[\" is broken: missing ]: [; it must be a regular expression in "
       "RE2 syntax, with a backslash before a brace that has no partner"},
      {"match: {a: [b]}", 16, "an element of match is a list; it must be a single value"},
      {"uid: 9", 5,
       "the key \"uid\" stands here a second time, first at m.yaml:4:5; a mapping has each key "
       "once"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(ParseText(std::string(kBasics) + "    " + c.line + "\n"), 0) << c.line;
    EXPECT_THAT(lines_, ElementsAre("E m.yaml:6:" + std::to_string(c.column) + ": " + c.fault))
        << c.line;
  }
}

TEST_F(ManifestTest, FaultOfARequiredValueNamesPlaceAndRemedy) {
  const struct {
    const char* entry;
    int column;
    const char* fault;
  } cases[] = {
      {"{appName: '', binPath: /b, uid: 1, gid: 1}", 13,
       "appName is \"\"; it must be a name of 1 to 255 bytes without \"#\" and \"/\""},
      {"{appName: a#b, binPath: /b, uid: 1, gid: 1}", 13,
       "appName is \"a#b\"; it must be a name of 1 to 255 bytes without \"#\" and \"/\""},
      {"{appName: 'a/${b}', binPath: /b, uid: 1, gid: 1}", 13,
       "appName is \"a/${b}\"; it must be a name of 1 to 255 bytes without \"#\" and \"/\""},
      {"{appName: 12, binPath: /b, uid: 1, gid: 1}", 13,
       "appName is the number 12; it must be a text; put quotes around a text that looks like "
       "something else"},
      {"{appName: a, binPath: bin/b, uid: 1, gid: 1}", 25,
       "binPath is \"bin/b\"; it must be an absolute path or a pattern"},
      {"{appName: a, binPath: /b, uid: no-such-user-here, gid: 1}", 34,
       "uid is \"no-such-user-here\"; it must be a number, or a name that the user database of "
       "this machine knows"},
      {"{appName: a, binPath: /b, uid: 1, gid: 4294967296}", 42,
       "gid is the number 4294967296; it must be a whole number from 0 to 4294967295"},
      {"{appName: a, binPath: /b, uid: -1, gid: 1}", 34,
       "uid is the number -1; it must be a whole number from 0 to 4294967295"},
      {"{appName: a, binPath: /b, gid: 1}", 3,
       "the application has no uid; appName, binPath, uid and gid are required"},
      {"word", 3, "an element of applications is \"word\"; it must be a mapping"},
      {"{include: x.yaml, uid: 1}", 21,
       "the key uid stands beside an include; an include stands alone"},
  };
  folder_.Write("x.yaml", "applications: []\n");
  for (const auto& c : cases) {
    EXPECT_NE(ParseText(std::string("applications:\n- ") + c.entry + "\n"), 0) << c.entry;
    EXPECT_THAT(lines_, ElementsAre("E m.yaml:2:" + std::to_string(c.column) + ": " + c.fault))
        << c.entry;
  }
}

TEST_F(ManifestTest, NameMayHave255Bytes) {
  const auto entry = [](std::size_t length) {
    return "applications:\n- {appName: " + std::string(length, 'n') +
           ", binPath: /b, uid: 1, gid: 1}\n";
  };
  EXPECT_EQ(ParseText(entry(255)), 0);
  EXPECT_NE(ParseText(entry(256)), 0);
}

TEST_F(ManifestTest, AllFaultsOfAllFilesAreTold) {
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

TEST_F(ManifestTest, FailureLeavesTheListAlone) {
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

TEST_F(ManifestTest, UnknownKeysAreOnlyWarnings) {
  EXPECT_EQ(ParseText(R"(version: 3
applications:
  - {appName: a, binPath: /b, uid: 1, gid: 1, restrat: no, sharepoolGroups: [{groupName: g, perm: x}]}
  - {include: i.yaml, inculde: 2}
)"),
            1);  // i.yaml is missing.
  folder_.Write("i.yaml", "applications: []\n");
  EXPECT_EQ(Parse("m.yaml"), 0);
  EXPECT_THAT(
      lines_,
      ElementsAre("W m.yaml:1:1: the key \"version\" is unknown and ignored; the nearest known is "
                  "\"applications\"",
                  "W m.yaml:3:47: the key \"restrat\" is unknown and ignored; the nearest known is "
                  "\"restart\"",
                  "W m.yaml:3:93: the key \"perm\" is unknown and ignored; the nearest known is "
                  "\"permission\"",
                  "W m.yaml:4:23: the key \"inculde\" is unknown and ignored; the nearest known is "
                  "\"include\""));
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_F(ManifestTest, IncludedApplicationsStandInTheirPlace) {
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

TEST_F(ManifestTest, PathsGoFromTheFileThatALinkLeadsTo) {
  folder_.Write("real/m.yaml", "applications: [include: i.yaml]\n");
  folder_.Write("real/i.yaml", "appName: i\nbinPath: /1\nuid: 1\ngid: 1\n");
  ASSERT_EQ(symlink("real/m.yaml", folder_.Path("link.yaml").c_str()), 0);
  ASSERT_EQ(Parse("link.yaml"), 0);
  EXPECT_EQ(manifests_[0].GetCfgPath(), folder_.Path("real/i.yaml"));
}

TEST_F(ManifestTest, OneApplicationAloneIsNoFirstFile) {
  EXPECT_NE(ParseText("appName: one\nbinPath: /1\nuid: 1\ngid: 1\n"), 0);
  EXPECT_THAT(lines_, ElementsAre("E m.yaml:1:1: the file has no list of applications; it must "
                                  "begin with \"applications:\""));
}

TEST_F(ManifestTest, IncludesNestEightDeep) {
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

TEST_F(ManifestTest, CircleOfIncludesIsNamed) {
  folder_.Write("a.yaml", "applications:\n  - include: b.yaml\n");
  folder_.Write("b.yaml", "applications:\n  - include: ./a.yaml\n");
  EXPECT_NE(Parse("a.yaml"), 0);
  EXPECT_THAT(lines_, ElementsAre("E b.yaml:2:14: the includes go in a circle: a.yaml -> b.yaml "
                                  "-> a.yaml; take one of them out"));
}

// Nine files that each include the next one many times over: 50 to the power of 8 loads.
TEST_F(ManifestTest, TreeOfIncludesIsCutOff) {
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

TEST_F(ManifestTest, MatchTakesAnApplicationOnlyIfEveryPairIsGiven) {
  const char* const text = R"(applications:
  - {appName: cam, binPath: /small, uid: 1, gid: 1, match: {board: "1"}}
  - {appName: cam, binPath: /large, uid: 1, gid: 1, match: {board: 2, mode: fast}}
  - {appName: all, binPath: /all, uid: 1, gid: 1}
)";
  const struct {
    MatchData given;
    std::vector<std::string> paths;
  } cases[] = {
      {{}, {"/all"}},
      {{{"board", "1"}, {"other", "x"}}, {"/small", "/all"}},
      {{{"board", "2"}}, {"/all"}},
      {{{"board", "2"}, {"mode", "fast"}}, {"/large", "/all"}},
      {{{"board", "2"}, {"mode", "Fast"}}, {"/all"}},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(ParseText(text, c.given), 0);
    std::vector<std::string> paths;
    for (const ApplicationManifest& manifest : manifests_) {
      paths.push_back(manifest.GetBinPath());
    }
    EXPECT_EQ(paths, c.paths) << ::testing::PrintToString(c.given);
  }
  // What isn't taken is checked all the same.
  EXPECT_NE(ParseText("applications: [{appName: a, match: {x: y}}]"), 0);
}

TEST_F(ManifestTest, FileThatIsNoServiceFileIsOneFault) {
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

TEST_F(ManifestTest, PathThatIsNoFileIsOneFault) {
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

TEST_F(ManifestTest, HostileTextsStayOutOfTheLog) {
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

TEST_F(ManifestTest, LinesOfOneLoadAreBounded) {
  std::string text = "applications:\n";
  for (int i = 0; i < 5000; ++i) {
    text += "- 1\n";
  }
  EXPECT_NE(ParseText(text), 0);
  ASSERT_THAT(lines_, SizeIs(1001));
  EXPECT_EQ(lines_.back(),
            "E 4000 more lines about these files are left out; correct what the first ones tell");
}

TEST_F(ManifestTest, ThreadsParseAndAskAtOnce) {
  folder_.Write("m.yaml", std::string(kBasics) + "    dependList: [other]\n" +
                              "  - {appName: other, binPath: /b, uid: 1, gid: 1}\n");
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
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
