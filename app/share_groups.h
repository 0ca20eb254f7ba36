// Which applications take part in the share pool groups.
#ifndef APP_SHARE_GROUPS_H
#define APP_SHARE_GROUPS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "app/manifest.h"
#include "base/environment.h"

namespace ProcMgr::App {

// Whether an application is one of those that have any.
[[nodiscard]] bool HasShareGroups(const std::string& name, const std::string& owner);

// Admits a new process to its groups, if HasShareGroups(). Parent,
// right after its start.
void AddShareGroups(const std::string& name, const std::string& owner, pid_t pid,
                    const std::vector<SharepoolGroupsInfo>& groups);

// Tells a process its groups through its environment, under the same condition.
void SetShareGroupEnv(const std::string& name, const std::string& owner,
                      const std::vector<SharepoolGroupsInfo>& groups, Environment& env,
                      std::string& err);

}  // namespace ProcMgr::App

#endif  // APP_SHARE_GROUPS_H
