#include "app/app_info.h"

#include <gtest/gtest.h>

#include <tuple>

#include "host/host_limits.h"

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

}  // namespace
}  // namespace ProcMgr::App
