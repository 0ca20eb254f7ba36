#include "app/share_groups.h"

#include "base/names.h"
#include "host/sharepool_cfg.h"

namespace ProcMgr::App {

bool HasShareGroups(const std::string& name, const std::string& owner) {
  return owner == kDataService || name == kDataService || name == "EM";
}

void AddShareGroups(const std::string& name, const std::string& owner, pid_t pid,
                    const std::vector<SharepoolGroupsInfo>& groups) {
  if (HasShareGroups(name, owner)) {
    const SharepoolCfg& cfg = SharepoolCfg::Instance();
    cfg.AddSharepoolGroup(name, pid, cfg.GetAppSharepoolGroups(name, groups));
  }
}

void SetShareGroupEnv(const std::string& name, const std::string& owner,
                      const std::vector<SharepoolGroupsInfo>& groups, Environment& env,
                      std::string& err) {
  if (HasShareGroups(name, owner)) {
    SharepoolCfg::Instance().SetSharepoolGroupEnv(name, groups, env, err);
  }
}

}  // namespace ProcMgr::App
