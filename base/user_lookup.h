// Names of users and groups.
//
// The user database has a lock inside libc. The manager takes it only under UserLookupLock(), which
// is held over every fork (base/fork_locks.h).
#ifndef BASE_USER_LOOKUP_H
#define BASE_USER_LOOKUP_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace ProcMgr {

// The ids behind a name; none if the database doesn't know it. May block on the user database;
// never call them in a forked child.
[[nodiscard]] std::optional<uid_t> FindUserId(const std::string& name);
[[nodiscard]] std::optional<gid_t> FindGroupId(const std::string& name);

}  // namespace ProcMgr

#endif  // BASE_USER_LOOKUP_H
