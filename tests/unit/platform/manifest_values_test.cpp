// The values of service files: defaults, getters, and the place and text of each fault of a value.

#include "tests/unit/platform/manifest_fixture.h"

namespace ProcMgr {
namespace {

using ManifestValues = ManifestTest;

std::vector<std::string> Texts(const ApplicationManifest& m) {
  return {m.GetAppName(),         m.GetBinPath(),     m.GetRestart(),         m.GetResGroupName(),
          m.GetCpuset(),          m.GetSecurityCon(), m.GetSoName(),          m.GetSoPath(),
          m.GetProcessBindPath(), m.GetVfIdPattern(), m.GetStartupEntryPath()};
}

std::vector<std::int64_t> Numbers(const ApplicationManifest& m) {
  return {m.GetUid(),      m.GetGid(),  m.GetTermTimeOut(),    m.GetNice(),
          m.GetNodeType(), m.GetVfId(), m.GetStartupPriority()};
}

// The flags that are off by default.
std::vector<bool> Flags(const ApplicationManifest& m) {
  return {m.GetIsReporting(), m.GetIsSetRtPrio(),     m.GetIsDelayCoreAffinity(),
          m.GetIsSo(),        m.GetHeartBeatSwitch(), m.GetIsDynamicPara()};
}

TEST_F(ManifestValues, KeysLeftOutHaveTheirDefaults) {
  ASSERT_EQ(ParseText(kBasics), 0);
  ASSERT_THAT(lines_, IsEmpty());
  ASSERT_THAT(manifests_, SizeIs(1));
  const ApplicationManifest& m = manifests_[0];
  EXPECT_THAT(Texts(m), ElementsAre("cam", "/bin/cam", "no", "", "", "", "", "", "", "", ""));
  EXPECT_THAT(Numbers(m), ElementsAre(7, 8, 5000, 0, 0, -1, -1));
  EXPECT_THAT(Flags(m), Each(false));
  EXPECT_TRUE(m.GetIsForceTerm());
  EXPECT_THAT(m.GetArguments(), IsEmpty());
  EXPECT_THAT(m.GetEnvArgv(), IsEmpty());
  EXPECT_THAT(m.GetDependList(), IsEmpty());
  EXPECT_THAT(m.GetCoreAffinity(), IsEmpty());
  EXPECT_THAT(m.GetSharepoolGroups(), IsEmpty());
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
  EXPECT_THAT(Texts(m), ElementsAre("7", "/b", "on-until-succeed", "grp", "set", "u:r:t", "s.so",
                                    "/lib", "/bind", "", folder_.Path("start.yaml")));
  EXPECT_THAT(Numbers(m), ElementsAre(0, 16, 4294967295, -20, -2147483648, 3, 2147483647));
  EXPECT_THAT(Flags(m), Each(true));
  EXPECT_FALSE(m.GetIsForceTerm());
  EXPECT_THAT(m.GetArguments(), ElementsAre("-v", "1.50", "true", "~", "", "null", "0x1F"));
  EXPECT_THAT(m.GetEnvArgv(), ElementsAre(Pair("A", "1"), Pair("EMPTY", ""), Pair("null", "x"),
                                          Pair("quoted", "a=b")));
  EXPECT_THAT(m.GetDependList(), ElementsAre("a", "b"));
  EXPECT_THAT(m.GetCoreAffinity(), ElementsAre(255, 2, 3, 5));
  EXPECT_THAT(m.GetSharepoolGroups(),
              ElementsAre(SharepoolGroupsInfo{"g", "rw"}, SharepoolGroupsInfo{"h", ""}));
}

TEST_F(ManifestValues, PatternMakesAnApplicationDynamic) {
  const struct {
    const char* line;
    bool isDynamic;
  } cases[] = {
      {"arguments: [a, 'x${[0-9]+}']", true},
      {"envArgv: {A: '${a|b}'}", true},
      {"vfId: 4", false},
      {"resGroupName: '${a}'", false},
      {"envArgv: {'${A}': b}", false},
      {"arguments: ['${a}']\n    isDynamicPara: false", false},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(ParseText(std::string(kBasics) + "    " + c.line + "\n"), 0) << c.line;
    ASSERT_THAT(manifests_, SizeIs(1));
    EXPECT_EQ(manifests_[0].GetIsDynamicPara(), c.isDynamic) << c.line;
  }
  ASSERT_EQ(ParseText("applications: [{appName: 'w${[^/#]+}', binPath: '${/opt/.*}', uid: 1, "
                      "gid: 1, vfId: '${1|2}'}]"),
            0);
  EXPECT_TRUE(manifests_[0].GetIsDynamicPara());
  EXPECT_EQ(manifests_[0].GetVfIdPattern(), "${1|2}");
  EXPECT_EQ(manifests_[0].GetVfId(), -1);
}

constexpr const char* kNeedsText =
    "; it must be a text; put quotes around a text that looks like something else";
constexpr const char* kNeedsName = "; it must be a name of 1 to 255 bytes without \"#\" and \"/\"";
constexpr const char* kNeedsRegex =
    "; it must be a regular expression in RE2 syntax, with a backslash before a brace that has no "
    "partner";

// The one fault of a file, and its place.
TEST_F(ManifestValues, FaultOfOneValueNamesPlaceAndRemedy) {
  // A line behind kBasics, hence line 6, or an entry of its own: line 2.
  const struct {
    const char* text;
    int column;
    std::string fault;
    const char* remedy = "";
  } cases[] = {
      {"nice: 20", 11, "nice is the number 20; it must be a whole number from -20 to 19"},
      {"nice: \"3\"", 11, "nice is \"3\"; it must be a whole number from -20 to 19"},
      {"nice: 1.0", 11, "nice is the number 1.0; it must be a whole number from -20 to 19"},
      {"nice:", 5, "nice is empty; it must be a whole number from -20 to 19"},
      {"termTimeOut: 99999999999999999999", 18, "termTimeOut is the number 99999999999999999999",
       "; it must be a whole number from 0 to 4294967295"},
      {"startupPriority: -2", 22, "startupPriority is the number -2",
       "; it must be a whole number from -1 to 2147483647"},
      {"isReporting: yes", 18, "isReporting is \"yes\"; it must be true or false"},
      {"isReporting: \"true\"", 18, "isReporting is \"true\"; it must be true or false"},
      {"restart: false", 14, "restart is the boolean false",
       "; it must be on-failure, on-forever, on-until-succeed or no"},
      {"cpuset: 1.5", 13, "cpuset is the number 1.5", kNeedsText},
      {"soName: \"a\\0b\"", 13, "soName is \"a\\x00b\"; it must be a text without a zero byte"},
      {"arguments: text", 16, "arguments is \"text\"; it must be a list"},
      {"arguments: [a, [b]]", 20, "an element of arguments is a list; it must be a single value"},
      {"arguments: [a, '${(}']", 20, "arguments: the expression \"(\" is broken: missing ): (",
       kNeedsRegex},
      {"envArgv: {'A=B': c}", 15, "a key of envArgv is \"A=B\"",
       "; it must be a variable's name, not empty and without \"=\""},
      {"dependList: [a, '']", 21, "an element of dependList is \"\"",
       "; it must be the name of an application"},
      {"coreAffinity: 0-1024", 19, "coreAffinity is \"0-1024\"",
       "; it must be a list of core numbers and ranges, like [0, 2-3] or \"0-3,7\""},
      {"coreAffinity: [0, 3-2]", 23, "an element of coreAffinity is \"3-2\"",
       "; it must be a core number from 0 to 1023 or a rising range like 2-3"},
      {"sharepoolGroups: [{permission: rw}]", 23,
       "the element of sharepoolGroups has no groupName; name the group"},
      {"vfId: abc", 11, "vfId is \"abc\"; it must be a whole number or a pattern"},
      {"uid: 9", 5, "the key \"uid\" stands here a second time, first at m.yaml:4:5",
       "; a mapping has each key once"},
      {"{appName: '', binPath: /b, uid: 1, gid: 1}", 13, "appName is \"\"", kNeedsName},
      {"{appName: 'a/${b}', binPath: /b, uid: 1, gid: 1}", 13, "appName is \"a/${b}\"", kNeedsName},
      {"{appName: a, binPath: bin/b, uid: 1, gid: 1}", 25, "binPath is \"bin/b\"",
       "; it must be an absolute path or a pattern"},
      {"{appName: a, binPath: /b, uid: nobody-here, gid: 1}", 34, "uid is \"nobody-here\"",
       "; it must be a number, or a name that the user database of this machine knows"},
      {"{appName: a, binPath: /b, uid: 1, gid: 4294967296}", 42, "gid is the number 4294967296",
       "; it must be a whole number from 0 to 4294967295"},
      {"{include: x.yaml, uid: 1}", 21, "the key uid stands beside an include",
       "; an include stands alone"},
  };
  folder_.Write("x.yaml", "applications: []\n");
  for (const auto& c : cases) {
    const bool isEntry = c.text[0] == '{';
    EXPECT_NE(ParseText(isEntry ? std::string("applications:\n- ") + c.text + "\n"
                                : std::string(kBasics) + "    " + c.text + "\n"),
              0)
        << c.text;
    EXPECT_THAT(lines_, ElementsAre(std::string("E m.yaml:") + (isEntry ? "2:" : "6:") +
                                    std::to_string(c.column) + ": " + c.fault + c.remedy))
        << c.text;
  }
}

TEST_F(ManifestValues, NameMayHave255Bytes) {
  for (const std::size_t length : {255U, 256U}) {
    const std::string entry = "{binPath: /b, uid: 1, gid: 1, appName: ";
    EXPECT_EQ(ParseText("applications: [" + entry + std::string(length, 'n') + "}]") == 0,
              length == 255);
  }
}

TEST_F(ManifestValues, MatchTakesAnApplicationOnlyIfEveryPairIsGiven) {
  // One name twice is no fault as long as only one of them is taken.
  const char* const text = R"(applications:
  - {appName: cam, binPath: /small, uid: 1, gid: 1, match: {board: "1"}}
  - {appName: cam, binPath: /large, uid: 1, gid: 1, match: {board: 2, mode: fast}}
  - {appName: all, binPath: /all, uid: 1, gid: 1}
)";
  ASSERT_EQ(ParseText(text, {{"board", "2"}, {"mode", "Fast"}}), 0);
  EXPECT_THAT(Names(), ElementsAre("all"));
  ASSERT_EQ(ParseText(text, {{"board", "1"}, {"other", "x"}}), 0);
  ASSERT_THAT(Names(), ElementsAre("cam", "all"));
  EXPECT_EQ(manifests_[0].GetBinPath(), "/small");
  ASSERT_EQ(ParseText(text, {{"board", "2"}, {"mode", "fast"}}), 0);
  ASSERT_THAT(Names(), ElementsAre("cam", "all"));
  EXPECT_EQ(manifests_[0].GetBinPath(), "/large");
  // What isn't taken is checked all the same.
  EXPECT_NE(ParseText("applications: [{appName: a, match: {x: y}}]"), 0);
}

}  // namespace
}  // namespace ProcMgr
