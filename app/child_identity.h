// The steps of a forked child that fix who it is and what it may do. Rules: app/child_main.h.
#ifndef APP_CHILD_IDENTITY_H
#define APP_CHILD_IDENTITY_H

#include <sys/types.h>

#include <string>

namespace ProcMgr::App {

// Raises the limit on real-time priorities to 99, if `flag` says so. Runs under the manager's
// identity.
void SetRtPrioLimit(bool flag, std::string& err);

// Takes the supplementary groups of the user, then `gid`, then `uid`. False with the reason
// appended to `err`: the child must not go on.
[[nodiscard]] bool SetAppUidAndGid(uid_t uid, gid_t gid, std::string& err);

}  // namespace ProcMgr::App

#endif  // APP_CHILD_IDENTITY_H
