#ifndef PLATFORM_MANIFEST_SHAREPOOL_GROUPS_INFO_H
#define PLATFORM_MANIFEST_SHAREPOOL_GROUPS_INFO_H

#include <string>

namespace ProcMgr {

// A share pool group that an application wants, and the right it wants there ("admin", "alloc",
// "rw" or "ro"); the right may be empty in a manifest.
struct SharepoolGroupsInfo {
  std::string groupName;
  std::string permission;

  bool operator==(const SharepoolGroupsInfo&) const = default;
};

}  // namespace ProcMgr

#endif  // PLATFORM_MANIFEST_SHAREPOOL_GROUPS_INFO_H
