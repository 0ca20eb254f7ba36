// Names of users and groups.
#ifndef BASE_USER_LOOKUP_H
#define BASE_USER_LOOKUP_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "base/mutex.h"

namespace ProcMgr {

// libc answers from buffers that all threads share: guards every call of getpw*, getgr* and
// getgrouplist, and what they yield. A leaf: nothing else is taken under it.
[[nodiscard]] Mutex& UserLookupLock();

// The ids behind a name; none if the database doesn't know it. May block on the user database. Any
// thread.
[[nodiscard]] std::optional<uid_t> FindUserId(const std::string& name);
[[nodiscard]] std::optional<gid_t> FindGroupId(const std::string& name);

using UserFinder = std::function<std::optional<uid_t>(const std::string& name)>;
using GroupFinder = std::function<std::optional<gid_t>(const std::string& name)>;

// Puts other look-ups in the places of the two above, which call them under the lock. For tools
// that look at the files of another machine: the daemon never calls it.
void SetIdFinders(UserFinder users, GroupFinder groups);

}  // namespace ProcMgr

#endif  // BASE_USER_LOOKUP_H
