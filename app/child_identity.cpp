#include "app/child_identity.h"

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

#include "app/user_groups.h"

namespace ProcMgr::App {
namespace {

// The groups follow the user's own entries, its primary group included, and not the configured gid.
bool SetGroups(uid_t uid, std::string& err) {
  UserGroups groups;
  // The lock that guards the user database in the manager is free in a child (base/fork_locks.h).
  switch (ReadUserGroups(uid, groups)) {
    case UserGroupsResult::kUnknownUser:
      err += "getpwuid is null;";
      return false;
    case UserGroupsResult::kWipeFailed:
      err += "SetGroups memset_s failed error=" + std::to_string(errno) + ";";
      return false;
    case UserGroupsResult::kTooManyGroups:
      return false;
    case UserGroupsResult::kOk:
      break;
  }
  return setgroups(static_cast<std::size_t>(groups.count), groups.ids.data()) == 0;
}

bool SetAppGid(gid_t gid, std::string& err) {
  if (setgid(gid) != 0) {
    const int error = errno;
    err += "SetAppGid=" + std::to_string(gid) + " failed error=" + std::to_string(error) + ";";
    return false;
  }
  return true;
}

bool SetAppUid(uid_t uid, std::string& err) {
  if (setuid(uid) != 0) {
    const int error = errno;
    err += "SetAppUid=" + std::to_string(uid) + ",failed error=" + std::to_string(error) + ";";
    return false;
  }
  return true;
}

}  // namespace

void SetRtPrioLimit(bool flag, std::string& err) {
  if (!flag) {
    return;
  }
  rlimit limit{};
  if (getrlimit(RLIMIT_RTPRIO, &limit) != 0) {
    const int error = errno;
    err += "getrlimit failed,errno=" + std::to_string(error) + ";";
    return;
  }
  constexpr rlim_t kTopPriority = 99;
  limit = {kTopPriority, kTopPriority};
  if (prlimit(0, RLIMIT_RTPRIO, &limit, nullptr) != 0) {
    const int error = errno;
    err += "prlimit failed,errno=" + std::to_string(error) + ";";
  }
}

bool SetAppUidAndGid(uid_t uid, gid_t gid, std::string& err) {
  return SetGroups(uid, err) && SetAppGid(gid, err) && SetAppUid(uid, err);
}

}  // namespace ProcMgr::App
