#include <gtest/gtest.h>

#include "app/app_info.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

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
    EXPECT_EQ(app.arguments_, Lines{"-v"});
    EXPECT_EQ(app.vfId_, -1);
    EXPECT_EQ(app.envArgv_, fields.envArgv);
    EXPECT_EQ(TakeLog(), Lines{});
  }
}

TEST(UpdateDynamicParam, ArgumentsAreReplacedAsAWhole) {
  ApplicationManifest::Fields fields = FixedFields();
  fields.arguments = {"--id", "${[0-9]+}"};
  GeneralAppInfo app = Record(fields);
  // They are not held against the templates.
  EXPECT_TRUE(app.UpdateDynamicParam({"a", "b", "c"}, {}));
  EXPECT_EQ(app.arguments_, (Lines{"a", "b", "c"}));
  EXPECT_TRUE(app.UpdateDynamicParam({}, {}));
  EXPECT_EQ(app.arguments_, Lines{});
  EXPECT_EQ(app.argvTemplate_, fields.arguments);
}

TEST(UpdateDynamicParam, ExecPath) {
  const std::string pattern = "/opt/${[a-z]+}/run";
  const std::string error = "E PROCMGR : dynamic execPath ";
  const std::string path = "/opt/cam/run";
  struct {
    Params params;
    std::string line;
  } const rows[] = {
      {{{0, {path}}}, "I PROCMGR : UpdateExecvPath dynamic appName=svc, execPath=" + path},
      {{{1, {path}}}, error + "vector size invalid, 0"},
      {{{0, {}}}, error + "vector size invalid, 0"},
      {{{0, {path, path}}}, error + "vector size invalid, 2"},
      {{{0, {""}}}, error + "invalid, is empty"},
      {{{0, {"/opt/../run"}}}, error + "invalid, pattern=" + pattern + ", execPath=/opt/../run"},
      {{{0, {path + "2"}}}, error + "invalid, pattern=" + pattern + ", execPath=" + path + "2"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    ApplicationManifest::Fields fields = FixedFields();
    fields.binPath = pattern;
    GeneralAppInfo app = Record(fields);
    const bool isAccepted = &row == rows;
    EXPECT_EQ(app.UpdateDynamicParam({}, row.params), isAccepted);
    EXPECT_EQ(app.execPath_, isAccepted ? path : pattern);
    EXPECT_EQ(app.execPathPattern_, pattern);
    EXPECT_EQ(TakeLog(), Lines{row.line});
  }
}

TEST(UpdateDynamicParam, VfId) {
  const std::string updated = "I PROCMGR : UpdateVfId dynamic appName=svc, vfId=";
  struct {
    const char* pattern;
    Lines values;
    bool isAccepted;
    std::int32_t vfId;  // 7 before.
    std::string line;
  } const rows[] = {
      {"${[0-9]+}", {"12"}, true, 12, updated + "12"},
      {"${[0-9]+}", {"007", "junk"}, true, 7, updated + "7"},
      {"${[0-9]+}", {"2147483647"}, true, 2147483647, updated + "2147483647"},
      {"${[0-9]+}", {"2147483648"}, true, -1, updated + "-1"},
      {"${[0-9]+}", {"99999999999999999999999999"}, true, -1, updated + "-1"},
      {"${[0-9]*}", {""}, true, 0, updated + "0"},
      {"${.*}", {"-3"}, true, -1, updated + "-1"},
      {"${.*}", {"1 "}, true, -1, updated + "-1"},
      {"vf${[0-9]}", {"vf3"}, true, -1, updated + "-1"},
      {"${[0-9]+}",
       {},
       true,
       -1,
       "W PROCMGR : dynamic vfid vector size invalid, use default value"},
      {"${[0-9]}", {"12"}, false, 7, "E PROCMGR : dynamic vfid invalid, pattern=${[0-9]}, vfid=12"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern + std::string(" with ") +
                 (row.values.empty() ? "nothing" : row.values.front()));
    ApplicationManifest::Fields fields = FixedFields();
    fields.vfIdPattern = row.pattern;
    GeneralAppInfo app = Record(fields);
    app.vfId_ = 7;
    EXPECT_EQ(app.UpdateDynamicParam({}, {{1, row.values}}), row.isAccepted);
    EXPECT_EQ(app.vfId_, row.vfId);
    EXPECT_EQ(TakeLog(), Lines{row.line});
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
    bool isAccepted;
    Env env;
    Lines log;
  } const rows[] = {
      // A pattern that no value is given for is left out.
      {{}, true, fixed, {updated + "MODE=fast "}},
      {{"ID=5"}, true, five, {updated + "MODE=fast ID=5 "}},
      {{"ID=6", "ID=5"}, true, five, {updated + "MODE=fast ID=6 ID=5 "}},
      // The key ends at the first equals sign.
      {{"OPT=a=b"}, true, {{"MODE", "fast"}, {"OPT", "a=b"}}, {updated + "MODE=fast OPT=a=b "}},
      {{"NEW=1", "ID=5"},
       true,
       five,
       {"W PROCMGR : dynamic env key not in yaml cfg, NEW, ignore it",
        updated + "MODE=fast ID=5 "}},
      // A fixed entry takes its own value and no other.
      {{"MODE=fast"}, true, fixed, {updated + "MODE=fast MODE=fast "}},
      {{"MODE=slow"}, false, fixed, {mismatch + "MODE, pattern=fast, env=slow"}},
      // What came before the fault stays.
      {{"ID=5", "ID=x"}, false, five, {mismatch + "ID, pattern=${[0-9]+}, env=x"}},
      {{"ID"}, false, fixed, {invalid + "ID"}},
      {{"=5"}, false, fixed, {invalid + "=5"}},
      {{"ID="}, false, fixed, {invalid + "ID="}},
      {{""}, false, fixed, {invalid}},
  };
  ApplicationManifest::Fields fields = FixedFields();
  fields.envArgv["ID"] = "${[0-9]+}";
  fields.envArgv["OPT"] = "${.*}";
  GeneralAppInfo app = Record(fields);  // One for all: nothing may pile up.
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.values));
    EXPECT_EQ(app.UpdateDynamicParam({}, {{2, row.values}}), row.isAccepted);
    EXPECT_EQ(app.envArgv_, row.env);
    EXPECT_EQ(app.envTemplate_, fields.envArgv);
    EXPECT_EQ(TakeLog(), row.log);
  }
}

// The first fault ends the walk: what stands before it in the order path, number, environment has
// been written and stays, what stands behind it isn't looked at.
TEST(UpdateDynamicParam, AFaultRollsNothingBack) {
  ApplicationManifest::Fields fields = FixedFields();
  fields.binPath = "${/opt/[a-z]+}";
  fields.arguments = {"${.*}"};
  fields.vfIdPattern = "${[0-9]}";
  fields.envArgv["ID"] = "${[0-9]+}";
  GeneralAppInfo app = Record(fields);
  ASSERT_TRUE(app.UpdateDynamicParam({"1"}, {{0, {"/opt/a"}}, {1, {"1"}}, {2, {"ID=1"}}}));
  (void)TakeLog();

  EXPECT_FALSE(app.UpdateDynamicParam({"2"}, {{0, {"/opt/b"}}, {1, {"x"}}, {2, {"ID=2"}}}));
  EXPECT_EQ(app.arguments_, Lines{"2"});
  EXPECT_EQ(app.execPath_, "/opt/b");
  EXPECT_EQ(app.vfId_, 1);
  EXPECT_EQ(app.envArgv_["ID"], "1");
  EXPECT_EQ(TakeLog().size(), 2U);

  EXPECT_FALSE(app.UpdateDynamicParam({"3"}, {{1, {"3"}}, {2, {"ID=3"}}}));
  EXPECT_EQ(app.arguments_, Lines{"3"});
  EXPECT_EQ(app.execPath_, "/opt/b");
  EXPECT_EQ(app.vfId_, 1);
  EXPECT_EQ(TakeLog().size(), 1U);
}

}  // namespace
}  // namespace ProcMgr::App
