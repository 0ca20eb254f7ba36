// The values of service files: defaults, getters, and the place and text of each fault of a value.
#include <string>
#include <vector>

#include "tests/unit/platform/manifest_fixture.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ManifestValues = ManifestTest;

TEST_F(ManifestValues, KeysLeftOutHaveTheirDefaults) {
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

TEST_F(ManifestValues, EveryKeyReachesItsGetter) {
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

TEST_F(ManifestValues, PatternMakesAnApplicationDynamic) {
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
TEST_F(ManifestValues, FaultOfOneValueNamesPlaceAndRemedy) {
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

TEST_F(ManifestValues, FaultOfARequiredValueNamesPlaceAndRemedy) {
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

TEST_F(ManifestValues, NameMayHave255Bytes) {
  const auto entry = [](std::size_t length) {
    return "applications:\n- {appName: " + std::string(length, 'n') +
           ", binPath: /b, uid: 1, gid: 1}\n";
  };
  EXPECT_EQ(ParseText(entry(255)), 0);
  EXPECT_NE(ParseText(entry(256)), 0);
}

TEST_F(ManifestValues, UnknownKeysAreOnlyWarnings) {
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

TEST_F(ManifestValues, MatchTakesAnApplicationOnlyIfEveryPairIsGiven) {
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

}  // namespace
}  // namespace ProcMgr
