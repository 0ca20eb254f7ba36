#include "tools/iammgr/known_apps.h"

#include "app/manifest.h"
#include "base/names.h"
#include "base/small_file.h"
#include "base/text.h"

namespace Iammgr {
namespace {

constexpr std::size_t kStatLimit = 4096;

std::vector<ProcMgr::ApplicationManifest> Load(const std::string& path) {
  std::vector<ProcMgr::ApplicationManifest> manifests;
  // A file with faults yields nothing; the parser has logged each.
  (void)ProcMgr::ParseAndDepend::Instance().ParseYaml(ProcMgr::ParamType::kDefault, path, manifests,
                                                      {});
  return manifests;
}

// 0 if there is no such process.
pid_t ParentOf(pid_t pid) {
  std::string stat;
  if (ProcMgr::ReadSmallFile("/proc/" + std::to_string(pid) + "/stat", kStatLimit, stat) != 0) {
    return 0;
  }
  // "PID (NAME) STATE PARENT ...", where the name may hold anything, brackets too.
  const std::size_t begin = stat.rfind(") ");
  if (begin == std::string::npos || stat.size() < begin + 4) {
    return 0;
  }
  const std::string rest = stat.substr(begin + 4);
  return ProcMgr::ParseNumber<pid_t>(rest.substr(0, rest.find(' '))).value_or(0);
}

}  // namespace

KnownApps::KnownApps(const std::string& baseFile) {
  for (const ProcMgr::ApplicationManifest& base : Load(baseFile)) {
    baseServices_.insert(base.GetAppName());
    if (base.GetStartupEntryPath().empty()) {
      continue;
    }
    for (const ProcMgr::ApplicationManifest& app : Load(base.GetStartupEntryPath())) {
      owners_.emplace(app.GetAppName(), base.GetAppName());
      if (ProcMgr::ParseAndDepend::Instance().IsDynamicPara(app.GetAppName())) {
        patterns_.emplace_back(app.GetAppName(), base.GetAppName());
      }
    }
  }
}

AppKind KnownApps::Find(const std::string& name, pid_t pid, pid_t manager) const {
  if (name == ProcMgr::kManagerName) {
    return {"manager", ""};
  }
  if (baseServices_.contains(name)) {
    return {"base", ""};
  }
  if (const auto fixed = owners_.find(name); fixed != owners_.end()) {
    return {"general", fixed->second};
  }
  for (const auto& [pattern, owner] : patterns_) {
    if (ProcMgr::ParseAndDepend::Instance().IsDynamicParaMatch(pattern, name)) {
      return {"general", owner};
    }
  }
  return {manager > 0 && ParentOf(pid) == manager ? "general" : "self-reported", ""};
}

}  // namespace Iammgr
