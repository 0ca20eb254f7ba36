#include "app/user_groups.h"

#include <pwd.h>

#include <algorithm>

#include "base/fork_locks.h"
#include "platform/securec/securec.h"

namespace ProcMgr::App {

UserGroupsResult ReadUserGroups(uid_t uid, UserGroups& groups) {
  passwd* const user = getpwuid(uid);
  if (user == nullptr) {
    return UserGroupsResult::kUnknownUser;
  }
  groups.count = kMaxUserGroups;
  const int found = getgrouplist(user->pw_name, user->pw_gid, groups.ids.data(), &groups.count);
  if (memset_s(user, sizeof(*user), 0, sizeof(*user)) != 0) {
    return UserGroupsResult::kWipeFailed;
  }
  return found == -1 ? UserGroupsResult::kTooManyGroups : UserGroupsResult::kOk;
}

void LoadUserDatabase() {
  const MutexLock lock(UserLookupLock());
  UserGroups groups;
  (void)ReadUserGroups(0, groups);  // Whoever it finds: the look-up is what counts.
}

bool IsUserInGroup(uid_t uid, gid_t gid) {
  UserGroups groups;
  {
    const MutexLock lock(UserLookupLock());
    if (ReadUserGroups(uid, groups) != UserGroupsResult::kOk) {
      return false;
    }
  }
  const auto end = groups.ids.cbegin() + groups.count;
  return std::find(groups.ids.cbegin(), end, gid) != end;
}

}  // namespace ProcMgr::App
