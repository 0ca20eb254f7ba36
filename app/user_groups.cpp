#include "app/user_groups.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <utility>

#include "base/file_state.h"
#include "base/immortal.h"
#include "base/user_lookup.h"
#include "platform/securec/securec.h"

namespace ProcMgr::App {
namespace {

// The user database's files, in which a look-up ends on a board.
using DatabaseState = std::pair<std::optional<FileState>, std::optional<FileState>>;

DatabaseState StateOfDatabase() {
  return {StateOfFile("/etc/passwd"), StateOfFile("/etc/group")};
}

struct KnownGroups {
  Mutex mutex;
  DatabaseState state GUARDED_BY(mutex);
  std::map<uid_t, UserGroups> byUser GUARDED_BY(mutex);
};

[[nodiscard]] UserGroupsResult ReadUserGroups(uid_t uid, UserGroups& groups) {
  const MutexLock lock(UserLookupLock());
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

}  // namespace

UserGroupsResult FindUserGroups(uid_t uid, UserGroups& groups) {
  auto& known = Immortal<KnownGroups>();
  // Taken before the files are read: what changes meanwhile is read again next time.
  const DatabaseState state = StateOfDatabase();
  {
    const MutexLock lock(known.mutex);
    if (known.state != state) {
      known.state = state;
      known.byUser.clear();
    }
    if (const auto user = known.byUser.find(uid); user != known.byUser.end()) {
      groups = user->second;
      return UserGroupsResult::kOk;
    }
  }
  const UserGroupsResult result = ReadUserGroups(uid, groups);
  if (result == UserGroupsResult::kOk) {
    const MutexLock lock(known.mutex);
    if (known.state == state) {
      known.byUser.insert_or_assign(uid, groups);
    }
  }
  return result;
}

bool FoundUserGroups::Holds(gid_t gid) const {
  const auto end = groups.ids.cbegin() + groups.count;
  return result == UserGroupsResult::kOk && std::find(groups.ids.cbegin(), end, gid) != end;
}

const FoundUserGroups& UserGroupsOnce::Get() {
  if (!found_.has_value()) {
    FoundUserGroups& found = found_.emplace();
    found.result = FindUserGroups(uid_, found.groups);
    found.wipeError = found.result == UserGroupsResult::kWipeFailed ? errno : 0;
  }
  return *found_;
}

bool IsUserInGroup(uid_t uid, gid_t gid) {
  return UserGroupsOnce(uid).Get().Holds(gid);
}

}  // namespace ProcMgr::App
