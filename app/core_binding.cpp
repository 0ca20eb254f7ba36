// Binding a running process and its threads to cores.
#include <algorithm>
#include <iterator>

#include "app/app_info.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr::App {

bool AppInfo::BindThreads(const std::vector<std::uint32_t>& cores) const {
  CoreAffinityMgr& manager = CoreAffinityMgr::Instance();
  std::string err;
  bool isBound = manager.SetCoreAffinityToOs(pid_, cores, err) == 0;
  std::set<std::uint32_t> tids;
  isBound = manager.GetTids(pid_, tids) && isBound;
  for (const std::uint32_t tid : tids) {
    isBound = manager.SetCoreAffinityToOs(static_cast<pid_t>(tid), cores, err) == 0 && isBound;
  }
  if (!err.empty()) {
    LogWarning("PROCMGR : BindCoreForDelayApp failed err=%s", err.c_str());
  }
  return isBound;
}

bool AppInfo::BindCoreForDelayApp() {
  return BindThreads(coreAffinity_);
}

// An empty list stands for the default control cores.
bool AppInfo::BindCoreToDefault() {
  return BindThreads({});
}

bool AppInfo::ClearBoundTids() {
  boundTids_.clear();
  return true;
}

bool AppInfo::CheckMissingTids() {
  CoreAffinityMgr& manager = CoreAffinityMgr::Instance();
  std::set<std::uint32_t> tids;
  if (!manager.GetTids(pid_, tids)) {
    return false;
  }
  std::vector<std::uint32_t> missing;
  std::set_difference(tids.begin(), tids.end(), boundTids_.begin(), boundTids_.end(),
                      std::back_inserter(missing));
  for (const std::uint32_t tid : missing) {
    std::string err;
    if (manager.SetCoreAffinityToOs(static_cast<pid_t>(tid), coreAffinity_, err) == 0) {
      boundTids_.insert(tid);
    } else {
      LogWarning("PROCMGR : CheckMissingTids SetCoreAffinityToOs failed err=%s", err.c_str());
    }
  }
  return missing.empty();
}

}  // namespace ProcMgr::App
