// What a record takes over from its manifest, and from a request.
#include "app/app_info.h"
#include "host/host_limits.h"
#include "tests/support/test.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

// Every value differs from its default.
ApplicationManifest::Fields First() {
  ApplicationManifest::Fields fields;
  fields.appName = "first";
  fields.binPath = "/opt/${[a-z]+}";
  fields.cpuset = "set1";
  fields.processBindPath = "/bind1";
  fields.resGroupName = "group1";
  fields.restart = "on-failure";
  fields.soName = "so1";
  fields.soPath = "/so1";
  fields.securityCon = "con1";
  fields.startupEntryPath = "/entry1";
  fields.vfIdPattern = "${[0-9]}";
  fields.arguments = {"fixed", "${.*}"};
  fields.dependList = {"a", "b"};
  fields.envArgv = {{"KEY", "${.*}"}};
  fields.coreAffinity = {1, 2};
  fields.sharepoolGroups = {{"pool1", "rw"}};
  fields.uid = 11;
  fields.gid = 12;
  fields.termTimeOut = 13;
  fields.nice = 14;
  fields.nodeType = 15;
  fields.startupPriority = 16;
  fields.vfId = 17;
  fields.heartBeatSwitch = true;
  fields.isDelayCoreAffinity = true;
  fields.isDynamicPara = true;
  fields.isForceTerm = false;
  fields.isReporting = true;
  fields.isSetRtPrio = true;
  fields.isSo = true;
  return fields;
}

// What both kinds take over from the manifest when they are made.
void ExpectCommon(const AppInfo& app, const ApplicationManifest::Fields& fields) {
  EXPECT_EQ(std::tie(app.uid_, app.gid_, app.coreAffinity_, app.resGroupName_, app.cpuset_,
                     app.execPath_, app.arguments_, app.envArgv_, app.termTimeOut_,
                     app.isSetRtPrio_, app.securityCon_, app.vfId_),
            std::tie(fields.uid, fields.gid, fields.coreAffinity, fields.resGroupName,
                     fields.cpuset, fields.binPath, fields.arguments, fields.envArgv,
                     fields.termTimeOut, fields.isSetRtPrio, fields.securityCon, fields.vfId));
}

// What a manifest that is loaded again doesn't touch.
void ExpectKept(const AppInfo& app, const ApplicationManifest::Fields& fields) {
  EXPECT_EQ(std::tie(app.restart_, app.nodeType_, app.startupPriority_, app.isDelayCoreAffinity_,
                     app.isDynamicPara_),
            std::tie(fields.restart, fields.nodeType, fields.startupPriority,
                     fields.isDelayCoreAffinity, fields.isDynamicPara));
}

// The same of a general application: its patterns and its owner.
void ExpectKeptGeneral(const GeneralAppInfo& app, const ApplicationManifest::Fields& fields) {
  ExpectKept(app, fields);
  EXPECT_EQ(app.ownerName_, "owner");
  EXPECT_TRUE(app.isExecPathDynamic_ && app.isArgvDynamic_ && app.isEnvDynamic_ &&
              app.isVfIdDynamic_);
  EXPECT_EQ(std::tie(app.execPathPattern_, app.argvTemplate_, app.envTemplate_, app.vfIdPattern_),
            std::tie(fields.binPath, fields.arguments, fields.envArgv, fields.vfIdPattern));
}

void ExpectGeneral(const GeneralAppInfo& app, const ApplicationManifest::Fields& fields) {
  ExpectCommon(app, fields);
  EXPECT_EQ(std::tie(app.nice_, app.isSo_, app.soName_, app.soPath_, app.processBindPath_,
                     app.isForceTerm_, app.heartBeatSwitch_),
            std::tie(fields.nice, fields.isSo, fields.soName, fields.soPath, fields.processBindPath,
                     fields.isForceTerm, fields.heartBeatSwitch));
  EXPECT_EQ(app.sharepoolGroups_, fields.sharepoolGroups);
}

TEST(BaseAppInfo, IsMadeFromItsManifest) {
  homeEnvValue = "/home/first";
  const BaseAppInfo app{ApplicationManifest(First())};
  homeEnvValue.clear();
  EXPECT_EQ(app.appName_, "first");
  EXPECT_EQ(app.homeEnv_, "/home/first");
  EXPECT_TRUE(app.isReporting_);
  EXPECT_EQ(app.dependList_, First().dependList);
  EXPECT_FALSE(app.isForceTerm_);
  EXPECT_EQ(app.startupEntryPath_, "/entry1");
  EXPECT_FALSE(app.isExecPathDynamic_) << "no request reaches a base application";
  ExpectCommon(app, First());
  ExpectKept(app, First());
}

TEST(GeneralAppInfo, IsMadeFromItsManifestUnderANameOfItsOwn) {
  const GeneralAppInfo app("cam-3", ApplicationManifest(First()), "owner");
  EXPECT_EQ(app.appName_, "cam-3");
  EXPECT_FALSE(app.isReporting_) << "only base applications report";
  ExpectGeneral(app, First());
  ExpectKeptGeneral(app, First());
}

TEST(GeneralAppInfo, UpdateManifestKeepsThePolicyAndThePatterns) {
  GeneralAppInfo app("cam-3", ApplicationManifest(First()), "owner");
  app.pid_ = 77;
  app.state_ = ProcessState::RUNNING;
  app.schedPolicy_ = 3;
  app.isPriorityPending_ = true;
  ApplicationManifest::Fields other;  // The defaults, each other than its value before.
  other.appName = "other";
  app.UpdateManifest(ApplicationManifest(other));
  EXPECT_EQ(app.appName_, "other");
  ExpectGeneral(app, other);
  ExpectKeptGeneral(app, First());
  EXPECT_EQ(app.pid_, 77);
  EXPECT_TRUE(app.IsRunning());
  EXPECT_EQ(app.schedPolicy_, 3);
  EXPECT_TRUE(app.isPriorityPending_);
}

using Env = std::map<std::string, std::string>;
using Params = std::map<int, std::vector<std::string>>;

// A manifest with everything fixed; a test opens what it is about.
ApplicationManifest::Fields FixedFields() {
  ApplicationManifest::Fields fields;
  fields.binPath = "/opt/bin/app";
  fields.arguments = {"-v"};
  fields.envArgv = {{"MODE", "fast"}};
  fields.isDynamicPara = true;
  return fields;
}

GeneralAppInfo Record(const ApplicationManifest::Fields& fields) {
  GeneralAppInfo app("svc", ApplicationManifest(fields), "owner");
  (void)TakeLog();
  return app;
}

TEST(UpdateDynamicParam, FixedPartsIgnoreTheRequest) {
  const Params params = {{0, {"/bin/sh"}}, {1, {"3"}}, {2, {"MODE=slow", "no equals sign"}}};
  ApplicationManifest::Fields fixed = FixedFields();
  // The flag of the manifest rules, whatever its texts look like.
  fixed.isDynamicPara = false;
  fixed.binPath = "/opt/bin/${[a-z]+}";
  for (const ApplicationManifest::Fields& fields : {fixed, FixedFields()}) {
    GeneralAppInfo app = Record(fields);
    EXPECT_TRUE(app.UpdateDynamicParam({"-x"}, params));
    EXPECT_EQ(app.execPath_, fields.binPath);
    EXPECT_EQ(app.arguments_, fields.arguments);
    EXPECT_EQ(app.vfId_, -1);
    EXPECT_EQ(app.envArgv_, fields.envArgv);
    EXPECT_EQ(TakeLog(), Lines{});
  }
}

TEST(UpdateDynamicParam, VfId) {
  struct {
    const char* pattern;
    Lines values;
    bool isAccepted;
    std::int32_t vfId;  // 7 before.
  } const rows[] = {
      {"${[0-9]+}", {"012", "junk"}, true, 12},
      {"${[0-9]+}", {"2147483647"}, true, 2147483647},
      {"${[0-9]+}", {"2147483648"}, true, -1},
      {"${[0-9]+}", {"99999999999999999999999999"}, true, -1},
      {"${[0-9]*}", {""}, true, 0},
      {"${.*}", {"-3"}, true, -1},
      {"vf${[0-9]}", {"vf3"}, true, -1},
      {"${[0-9]+}", {}, true, -1},
      {"${[0-9]}", {"12"}, false, 7},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern + std::string(" with ") + ::testing::PrintToString(row.values));
    ApplicationManifest::Fields fields = FixedFields();
    fields.vfIdPattern = row.pattern;
    GeneralAppInfo app = Record(fields);
    app.vfId_ = 7;
    EXPECT_EQ(app.UpdateDynamicParam({}, {{1, row.values}}), row.isAccepted);
    EXPECT_EQ(app.vfId_, row.vfId);
    const std::string line =
        row.values.empty() ? "W PROCMGR : dynamic vfid vector size invalid, use default value"
        : row.isAccepted
            ? "I PROCMGR : UpdateVfId dynamic appName=svc, vfId=" + std::to_string(row.vfId)
            : "E PROCMGR : dynamic vfid invalid, pattern=${[0-9]}, vfid=12";
    EXPECT_EQ(TakeLog(), Lines{line});
  }
}

TEST(UpdateDynamicParam, EnvIsBuiltFromTheTemplateAtEachRequest) {
  const std::string updated = "I PROCMGR : UpdateEnv dynamic appName=svc, env=";
  const std::string invalid = "E PROCMGR : dynamic env invaild, ";
  const std::string mismatch = "E PROCMGR : dynamic env value invaild, key=";
  const Env fixed = {{"MODE", "fast"}};
  const Env five = {{"MODE", "fast"}, {"ID", "5"}};
  struct {
    Lines values;
    Env env;
    std::string line;  // The last one; it tells whether the values are accepted.
  } const rows[] = {
      // A pattern that no value is given for is left out.
      {{}, fixed, updated + "MODE=fast "},
      {{"ID=6", "ID=5"}, five, updated + "MODE=fast ID=6 ID=5 "},
      // The key ends at the first equals sign.
      {{"OPT=a=b"}, {{"MODE", "fast"}, {"OPT", "a=b"}}, updated + "MODE=fast OPT=a=b "},
      // A key that the template doesn't have is ignored.
      {{"NEW=1", "ID=5"}, five, updated + "MODE=fast ID=5 "},
      // A fixed entry takes its own value and no other.
      {{"MODE=fast"}, fixed, updated + "MODE=fast MODE=fast "},
      {{"MODE=slow"}, fixed, mismatch + "MODE, pattern=fast, env=slow"},
      // What came before the fault stays.
      {{"ID=5", "ID=x"}, five, mismatch + "ID, pattern=${[0-9]+}, env=x"},
      {{"ID"}, fixed, invalid + "ID"},
      {{"=5"}, fixed, invalid + "=5"},
      {{"ID="}, fixed, invalid + "ID="},
      {{""}, fixed, invalid},
  };
  ApplicationManifest::Fields fields = FixedFields();
  fields.envArgv["ID"] = "${[0-9]+}";
  fields.envArgv["OPT"] = "${.*}";
  GeneralAppInfo app = Record(fields);  // One for all: nothing may pile up.
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.values));
    EXPECT_EQ(app.UpdateDynamicParam({}, {{2, row.values}}), row.line.starts_with(updated));
    EXPECT_EQ(app.envArgv_, row.env);
    EXPECT_EQ(LastLine(), row.line);
  }
}

// The first fault ends the walk: what stands before it in the order path, number, environment has
// been written and stays, what stands behind it isn't looked at. The arguments come first, as a
// whole, and aren't held against their templates.
TEST(UpdateDynamicParam, AFaultRollsNothingBack) {
  ApplicationManifest::Fields fields = FixedFields();
  fields.binPath = "${/opt/[a-z]+}";
  fields.arguments = {"--id", "${[0-9]+}"};
  fields.vfIdPattern = "${[0-9]}";
  fields.envArgv["ID"] = "${[0-9]+}";
  GeneralAppInfo app = Record(fields);
  struct {
    Lines arguments;
    Params params;
    bool isAccepted;
    std::string path;
  } const rows[] = {
      {{"1"}, {{0, {"/opt/a"}}, {1, {"1"}}, {2, {"ID=1"}}}, true, "/opt/a"},
      {{"a", "b", "c"}, {{0, {"/opt/b"}}, {1, {"x"}}, {2, {"ID=2"}}}, false, "/opt/b"},
      {{}, {{1, {"3"}}, {2, {"ID=3"}}}, false, "/opt/b"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(app.UpdateDynamicParam(row.arguments, row.params), row.isAccepted);
    EXPECT_EQ(app.arguments_, row.arguments);
    EXPECT_EQ(app.execPath_, row.path);
    EXPECT_EQ(app.vfId_, 1);
    EXPECT_EQ(app.envArgv_["ID"], "1");
  }
}

}  // namespace
}  // namespace ProcMgr::App
