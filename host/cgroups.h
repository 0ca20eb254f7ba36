// Placing a process or thread in the cgroups that the platform has prepared.
//
// The manager creates no group and sets no controller value: it appends ids to "tasks" files.
#ifndef HOST_CGROUPS_H
#define HOST_CGROUPS_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "base/fixed_text.h"

namespace ProcMgr {

// The groups of the manager itself, and of whoever names none but must have one.
inline constexpr const char* kDefaultResGroup = "OTHER";
inline constexpr const char* kDefaultCpuset = "CtrlCPU";

// Where the hierarchies are mounted; with their trailing slashes.
struct CgroupRoots {
  std::string cpu = "/sys/fs/cgroup/cpu/";
  std::string memory = "/sys/fs/cgroup/memory/";
  std::string cpuset = "/sys/fs/cgroup/cpuset/";
};

// One placement.
struct CgroupInfo {
  std::string procName;      // The owner, for the caller's messages only.
  pid_t pid = 0;             // A process or thread id.
  std::string resGroupName;  // Group in the cpu and memory hierarchies; empty for none.
  std::string cpuset;        // Group in the cpuset hierarchy; empty for none.
};

// The tasks files of a placement; empty for a hierarchy in which nothing is entered.
struct CgroupTasks {
  std::string cpu;
  std::string memory;
  std::string cpuset;
};

// A name that is empty or holds ".." is passed over without a message. Any thread.
[[nodiscard]] CgroupTasks FindCgroupTasks(const std::string& resGroupName,
                                          const std::string& cpuset, const CgroupRoots& roots = {});

// Writes the process or thread id into the files. False if one doesn't exist, with the reason,
// ending in ";", appended to `err`; a group that exists in one of the cpu and memory hierarchies
// only is entered in neither. Failed writes aren't looked at. Any thread, and a child before its
// exec.
bool EnterCgroups(const CgroupTasks& tasks, pid_t id, ErrText& err);

// Both at once. Any thread.
bool AddPidToCgroupTasks(const CgroupInfo& info, std::string& err, const CgroupRoots& roots = {});

// Places threads of the manager in the default groups, in increasing order.
void AddPmTids(const std::set<std::uint32_t>& tids, const CgroupRoots& roots = {});

// Places the manager and all its threads in the default groups. Boot thread.
void AddPmToCgroupTasks(const CgroupRoots& roots = {});

}  // namespace ProcMgr

#endif  // HOST_CGROUPS_H
