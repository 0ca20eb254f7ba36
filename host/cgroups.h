// Placing a process or thread in the cgroups that the platform has prepared.
//
// The manager creates no group and sets no controller value: it appends ids to "tasks" files.
#ifndef HOST_CGROUPS_H
#define HOST_CGROUPS_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

namespace ProcMgr {

// The groups of the manager itself, and of whoever names none but must have one.
inline constexpr const char* kDefaultResGroup = "OTHER";
inline constexpr const char* kDefaultCpuset = "CtrlCPU";

// Where the hierarchies are mounted; with their trailing slashes. Plain pointers, so that a forked
// child builds nothing that another thread could have been building at the fork.
struct CgroupRoots {
  const char* cpu = "/sys/fs/cgroup/cpu/";
  const char* memory = "/sys/fs/cgroup/memory/";
  const char* cpuset = "/sys/fs/cgroup/cpuset/";
};

// One placement.
struct CgroupInfo {
  std::string procName;      // The owner, for the caller's messages only.
  pid_t pid = 0;             // A process or thread id.
  std::string resGroupName;  // Group in the cpu and memory hierarchies; empty for none.
  std::string cpuset;        // Group in the cpuset hierarchy; empty for none.
};

// Writes the id into the groups. A name that holds ".." is passed over without a message. False if
// a group doesn't exist, with the reason, ending in ";", appended to `err`; a group that exists in
// one of the cpu and memory hierarchies only is entered in neither. Failed writes aren't looked at.
// Any thread, and a forked child: takes no lock.
bool AddPidToCgroupTasks(const CgroupInfo& info, std::string& err, const CgroupRoots& roots = {});

// Places threads of the manager in the default groups, in increasing order.
void AddPmTids(const std::set<std::uint32_t>& tids, const CgroupRoots& roots = {});

// Places the manager and all its threads in the default groups. Boot thread.
void AddPmToCgroupTasks(const CgroupRoots& roots = {});

}  // namespace ProcMgr

#endif  // HOST_CGROUPS_H
