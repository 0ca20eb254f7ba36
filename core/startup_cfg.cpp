#include "core/startup_cfg.h"

#include "core/log.h"

namespace ProcMgr {

std::uint32_t StartupCfg::LoadStartCfgInfo(const Message::StartupCfgInfo& cfg) {
  std::vector<ApplicationManifest> manifests;
  const int ret =
      ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, cfg.path, manifests, cfg.matchData);
  if (ret != 0) {
    LogError("LoadStartCfgInfo failed, path=%s", cfg.path.c_str());
  }
  StoreManifests(manifests);
  return ret == 0 ? 0 : kLoadStartCfgFailed;
}

void StartupCfg::StoreManifests(const std::vector<ApplicationManifest>& manifests) {
  const MutexLock lock(cfgMapMutex_);
  for (const ApplicationManifest& manifest : manifests) {
    auto& map = manifest.GetIsDynamicPara() ? dynamicCfgMap_ : startCfgMap_;
    map.insert_or_assign(manifest.GetAppName(), manifest);
  }
}

std::optional<ApplicationManifest> StartupCfg::Find(const std::string& name) {
  const MutexLock lock(cfgMapMutex_);
  const auto entry = startCfgMap_.find(name);
  if (entry == startCfgMap_.end()) {
    return std::nullopt;
  }
  return entry->second;
}

std::optional<ApplicationManifest> StartupCfg::Match(const std::string& name) {
  const MutexLock lock(cfgMapMutex_);
  for (const auto& [pattern, manifest] : dynamicCfgMap_) {
    if (ParseAndDepend::Instance().IsDynamicParaMatch(pattern, name)) {
      return manifest;
    }
  }
  return std::nullopt;
}

StartupCfg::ManifestMap StartupCfg::Fixed() {
  const MutexLock lock(cfgMapMutex_);
  return startCfgMap_;
}

}  // namespace ProcMgr
