// The user database of a platform.
#ifndef TOOLS_CHECK_PLATFORM_USERS_H
#define TOOLS_CHECK_PLATFORM_USERS_H

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace ProcMgr::Check {

// What a start makes of a user.
enum class UserVerdict { kOk, kUnknown, kTooManyGroups };

// The files etc/passwd and etc/group of another root, or this machine's user database.
class PlatformUsers {
 public:
  // `root` is empty for this machine. Another root's names take the place of this machine's in all
  // look-ups of this process, so that service files name the platform's users. Reads files.
  explicit PlatformUsers(const std::string& root);

  // May block on the user database.
  [[nodiscard]] UserVerdict Judge(uid_t uid) const;
  // By the rule of a start: never for a user that can't be read.
  [[nodiscard]] bool IsInGroup(uid_t uid, gid_t gid) const;

 private:
  void ReadPasswd(const std::string& path);
  void ReadGroup(const std::string& path);

  bool isThisMachine_;
  std::map<std::string, uid_t> uidOfName_;
  std::map<std::string, gid_t> gidOfName_;
  // The primary group among them.
  std::map<uid_t, std::set<gid_t>> groupsOfUser_;
};

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_PLATFORM_USERS_H
