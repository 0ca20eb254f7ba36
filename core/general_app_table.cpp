#include "core/general_app_table.h"

#include <memory>
#include <optional>

#include "core/log.h"
#include "host/integrity_protect.h"

namespace ProcMgr {
namespace {

// SCHED_FIFO, in the numbers of SetSchedPolicy.
constexpr std::int32_t kReservedCorePolicy = 3;

}  // namespace

GeneralAppPtr GeneralAppTable::GetGeneralApp(const std::string& name, const std::string& owner) {
  UpdateAllGeneralAppMap(name, owner);
  if (const auto known = allGeneralAppMap_.find(name); known != allGeneralAppMap_.end()) {
    return known->second;
  }
  if (GeneralAppPtr running = FindGeneralApp(name); running != nullptr) {
    return running;
  }
  if (GeneralAppPtr app = MakeDynamicApp(name, owner); app != nullptr) {
    return app;
  }
  LogError("PROCMGR : GetGeneralApp failed: app=%s", name.c_str());
  return nullptr;
}

GeneralAppPtr GeneralAppTable::MakeDynamicApp(const std::string& name, const std::string& owner) {
  const std::optional<ApplicationManifest> manifest = startupCfg_.Match(name);
  return manifest ? std::make_shared<App::GeneralAppInfo>(name, *manifest, owner) : nullptr;
}

void GeneralAppTable::UpdateAllGeneralAppMap(const std::string& name, const std::string& owner) {
  if (allGeneralAppMap_.contains(name)) {
    return;
  }
  if (const std::optional<ApplicationManifest> manifest = startupCfg_.Find(name)) {
    allGeneralAppMap_.emplace(name, std::make_shared<App::GeneralAppInfo>(name, *manifest, owner));
  }
}

std::string GeneralAppTable::ProgramToStart(const std::string& name) {
  if (const GeneralAppPtr app = FindGeneralApp(name); app != nullptr) {
    return app->state_ == ProcessState::TERMINATED ? app->execPath_ : "";
  }
  if (const auto known = allGeneralAppMap_.find(name); known != allGeneralAppMap_.end()) {
    return known->second->execPath_;
  }
  std::optional<ApplicationManifest> manifest = startupCfg_.Find(name);
  if (!manifest) {
    manifest = startupCfg_.Match(name);
  }
  return manifest ? manifest->GetBinPath() : "";
}

std::string GeneralAppTable::ProgramToCheck(const std::string& name,
                                            const std::map<int, std::vector<std::string>>& params) {
  IntegrityProtect& protect = IntegrityProtect::Instance();
  if (!protect.HasEntries()) {
    return {};
  }
  if (std::string path = ProgramToStart(name); !protect.IsAtHand(path)) {
    return path;
  }
  // A program that the request itself names.
  const auto path = params.find(static_cast<int>(App::ParamKey::kExecPath));
  const bool isNamed = path != params.end() && path->second.size() == 1;
  return isNamed && !protect.IsAtHand(path->second.front()) ? path->second.front() : "";
}

void GeneralAppTable::ResolveCoreAffinityAll(App::GeneralAppInfo& app) const {
  if (!app.coreAffinity_.empty() && app.coreAffinity_.front() == App::kAllReservedCores) {
    app.coreAffinity_.assign(reservedCoreSet_.begin(), reservedCoreSet_.end());
    app.schedPolicy_ = kReservedCorePolicy;
  }
}

void GeneralAppTable::UpdateManifests() {
  const StartupCfg::ManifestMap manifests = startupCfg_.Fixed();
  const MutexLock lock(generalAppMutex_);
  for (const auto& [name, app] : allGeneralAppMap_) {
    if (const auto manifest = manifests.find(name); manifest != manifests.end()) {
      app->UpdateManifest(manifest->second);
      // A restart may be under way, which starts with this core list and asks nobody any more.
      ResolveCoreAffinityAll(*app);
    }
  }
}

}  // namespace ProcMgr
