#include "base/user_lookup.h"

#include <grp.h>
#include <pwd.h>

#include <utility>

#include "base/immortal.h"

namespace ProcMgr {
namespace {

struct IdFinders {
  UserFinder users;
  GroupFinder groups;
};

// Guarded by UserLookupLock().
IdFinders& Finders() {
  return Immortal<IdFinders>();
}

}  // namespace

Mutex& UserLookupLock() {
  return Immortal<Mutex>();
}

std::optional<uid_t> FindUserId(const std::string& name) {
  const MutexLock lock(UserLookupLock());
  if (Finders().users) {
    return Finders().users(name);
  }
  const passwd* const user = getpwnam(name.c_str());
  return user == nullptr ? std::nullopt : std::optional<uid_t>(user->pw_uid);
}

std::optional<gid_t> FindGroupId(const std::string& name) {
  const MutexLock lock(UserLookupLock());
  if (Finders().groups) {
    return Finders().groups(name);
  }
  const group* const entry = getgrnam(name.c_str());
  return entry == nullptr ? std::nullopt : std::optional<gid_t>(entry->gr_gid);
}

void SetIdFinders(UserFinder users, GroupFinder groups) {
  const MutexLock lock(UserLookupLock());
  Finders() = {std::move(users), std::move(groups)};
}

}  // namespace ProcMgr
