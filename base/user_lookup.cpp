#include "base/user_lookup.h"

#include <grp.h>
#include <pwd.h>

#include "base/immortal.h"

namespace ProcMgr {

Mutex& UserLookupLock() {
  return Immortal<Mutex>();
}

std::optional<uid_t> FindUserId(const std::string& name) {
  const MutexLock lock(UserLookupLock());
  const passwd* const user = getpwnam(name.c_str());
  return user == nullptr ? std::nullopt : std::optional<uid_t>(user->pw_uid);
}

std::optional<gid_t> FindGroupId(const std::string& name) {
  const MutexLock lock(UserLookupLock());
  const group* const entry = getgrnam(name.c_str());
  return entry == nullptr ? std::nullopt : std::optional<gid_t>(entry->gr_gid);
}

}  // namespace ProcMgr
