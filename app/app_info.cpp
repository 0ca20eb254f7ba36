#include "app/app_info.h"

#include <algorithm>
#include <utility>

#include "host/host_limits.h"

namespace ProcMgr::App {

AppInfo::AppInfo(const ApplicationManifest& manifest, std::string name, std::string owner)
    : appName_(std::move(name)),
      uid_(manifest.GetUid()),
      gid_(manifest.GetGid()),
      coreAffinity_(manifest.GetCoreAffinity()),
      resGroupName_(manifest.GetResGroupName()),
      execPath_(manifest.GetBinPath()),
      arguments_(manifest.GetArguments()),
      envArgv_(manifest.GetEnvArgv()),
      termTimeOut_(manifest.GetTermTimeOut()),
      homeEnv_(homeEnvValue),
      isSetRtPrio_(manifest.GetIsSetRtPrio()),
      securityCon_(manifest.GetSecurityCon()),
      cpuset_(manifest.GetCpuset()),
      restart_(manifest.GetRestart()),
      ownerName_(std::move(owner)),
      nodeType_(manifest.GetNodeType()),
      startupPriority_(manifest.GetStartupPriority()),
      isDelayCoreAffinity_(manifest.GetIsDelayCoreAffinity()),
      vfId_(manifest.GetVfId()),
      isDynamicPara_(manifest.GetIsDynamicPara()) {}

void AppInfo::ClearForStart() {
  boundTids_.clear();
  if (coreAffinity_.empty()) {
    isDelayCoreAffinity_ = false;
  }
}

std::vector<char*> AppInfo::BuildArgv() {
  std::vector<char*> argv;
  argv.reserve(arguments_.size() + 2);
  argv.push_back(execPath_.data());
  for (std::string& argument : arguments_) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  return argv;
}

BaseAppInfo::BaseAppInfo(const ApplicationManifest& manifest)
    : AppInfo(manifest, manifest.GetAppName(), {}),
      dependList_(manifest.GetDependList()),
      isForceTerm_(manifest.GetIsForceTerm()),
      startupEntryPath_(manifest.GetStartupEntryPath()) {
  isReporting_ = manifest.GetIsReporting();
}

GeneralAppInfo::GeneralAppInfo(std::string name, const ApplicationManifest& manifest,
                               std::string owner)
    : AppInfo(manifest, std::move(name), std::move(owner)),
      nice_(manifest.GetNice()),
      isSo_(manifest.GetIsSo()),
      soName_(manifest.GetSoName()),
      soPath_(manifest.GetSoPath()),
      processBindPath_(manifest.GetProcessBindPath()),
      isForceTerm_(manifest.GetIsForceTerm()),
      sharepoolGroups_(manifest.GetSharepoolGroups()),
      heartBeatSwitch_(manifest.GetHeartBeatSwitch()) {
  if (isDynamicPara_) {
    InitDynamicFields(manifest);
  }
}

void GeneralAppInfo::InitDynamicFields(const ApplicationManifest& manifest) {
  const ParseAndDepend& library = ParseAndDepend::Instance();
  const auto isPattern = [&library](const std::string& text) {
    return library.IsDynamicPara(text);
  };
  isExecPathDynamic_ = isPattern(execPath_);
  execPathPattern_ = execPath_;
  isArgvDynamic_ = std::any_of(arguments_.begin(), arguments_.end(), isPattern);
  argvTemplate_ = arguments_;
  isEnvDynamic_ = std::any_of(envArgv_.begin(), envArgv_.end(),
                              [&](const auto& entry) { return isPattern(entry.second); });
  envTemplate_ = envArgv_;
  vfIdPattern_ = manifest.GetVfIdPattern();
  isVfIdDynamic_ = isPattern(vfIdPattern_);
}

void GeneralAppInfo::UpdateManifest(const ApplicationManifest& manifest) {
  appName_ = manifest.GetAppName();
  coreAffinity_ = manifest.GetCoreAffinity();
  resGroupName_ = manifest.GetResGroupName();
  execPath_ = manifest.GetBinPath();
  arguments_ = manifest.GetArguments();
  uid_ = manifest.GetUid();
  gid_ = manifest.GetGid();
  nice_ = manifest.GetNice();
  isSo_ = manifest.GetIsSo();
  soName_ = manifest.GetSoName();
  soPath_ = manifest.GetSoPath();
  processBindPath_ = manifest.GetProcessBindPath();
  envArgv_ = manifest.GetEnvArgv();
  isForceTerm_ = manifest.GetIsForceTerm();
  termTimeOut_ = manifest.GetTermTimeOut();
  isSetRtPrio_ = manifest.GetIsSetRtPrio();
  sharepoolGroups_ = manifest.GetSharepoolGroups();
  securityCon_ = manifest.GetSecurityCon();
  cpuset_ = manifest.GetCpuset();
  heartBeatSwitch_ = manifest.GetHeartBeatSwitch();
  vfId_ = manifest.GetVfId();
}

}  // namespace ProcMgr::App
