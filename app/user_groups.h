// The groups of a user, read from the user database.
#ifndef APP_USER_GROUPS_H
#define APP_USER_GROUPS_H

#include <grp.h>
#include <sys/types.h>

#include <array>
#include <optional>

namespace ProcMgr::App {

// What a user may be in; one with more groups can't be started.
inline constexpr int kMaxUserGroups = 128;

struct UserGroups {
  std::array<gid_t, kMaxUserGroups> ids{};
  int count = 0;
};

enum class UserGroupsResult { kOk, kUnknownUser, kTooManyGroups, kWipeFailed };

// Finds the primary and the supplementary groups of the user with `uid`, and wipes what libc keeps
// of the password record; a failed wipe leaves its errno. What was found is kept for as long as the
// files of the user database stay as they were. May block on the user database. Any thread.
[[nodiscard]] UserGroupsResult FindUserGroups(uid_t uid, UserGroups& groups);

struct FoundUserGroups {
  UserGroups groups;
  UserGroupsResult result = UserGroupsResult::kOk;
  int wipeError = 0;

  // False for a user that can't be read.
  [[nodiscard]] bool Holds(gid_t gid) const;
};

// The groups of one user, looked for at the first question and never again: what a start is judged
// by and what it is made with is one look at the user database. One thread.
class UserGroupsOnce {
 public:
  explicit UserGroupsOnce(uid_t uid) : uid_(uid) {}

  // May block on the user database.
  [[nodiscard]] const FoundUserGroups& Get();

 private:
  const uid_t uid_;
  std::optional<FoundUserGroups> found_;
};

// Whether `gid` is among the groups of the user; false for a user that can't be read. May block on
// the user database. Any thread.
[[nodiscard]] bool IsUserInGroup(uid_t uid, gid_t gid);

}  // namespace ProcMgr::App

#endif  // APP_USER_GROUPS_H
