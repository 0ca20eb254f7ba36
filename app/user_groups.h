// The groups of a user, read from the user database.
#ifndef APP_USER_GROUPS_H
#define APP_USER_GROUPS_H

#include <grp.h>
#include <sys/types.h>

#include <array>

namespace ProcMgr::App {

// What a user may be in; one with more groups can't be started.
inline constexpr int kMaxUserGroups = 128;

struct UserGroups {
  std::array<gid_t, kMaxUserGroups> ids{};
  int count = 0;
};

enum class UserGroupsResult { kOk, kUnknownUser, kTooManyGroups, kWipeFailed };

// Reads the primary and the supplementary groups of the user with `uid`, and wipes what libc keeps
// of the password record. The caller holds UserLookupLock(), or is a forked child, in which that
// lock's libc locks are free (base/fork_locks.h).
[[nodiscard]] UserGroupsResult ReadUserGroups(uid_t uid, UserGroups& groups);

// Has libc load what a look-up needs: its configuration and the modules that this names. Children
// inherit it; otherwise each would load it again, with the loader's locks taken after a fork. Boot
// thread, before any other thread starts.
void LoadUserDatabase();

// Whether `gid` is among the groups of the user; false for a user that can't be read. Not for a
// forked child. May block on the user database.
[[nodiscard]] bool IsUserInGroup(uid_t uid, gid_t gid);

}  // namespace ProcMgr::App

#endif  // APP_USER_GROUPS_H
