// The cgroup v1 groups of one sandbox.
#ifndef SANDBOX_CGROUP_ROOTS_H
#define SANDBOX_CGROUP_ROOTS_H

#include <array>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace PmSandbox {

inline constexpr std::array<const char*, 3> kHierarchies = {"cpu", "memory", "cpuset"};

// One group per hierarchy, made below the machine's real ones, which stands in as the root of that
// hierarchy inside a sandbox. Named after the owning process, so that what a killed test leaves
// behind is recognised and removed by the next one in its pid namespace.
//
// Not copied; one thread at a time.
class CgroupRoots {
 public:
  // Only chooses the name; makes nothing.
  CgroupRoots();

  // Removes what sandboxes of dead processes left behind, makes the groups and bind-mounts each
  // over its hierarchy's root. Runs inside the sandbox's mount namespace. Where a hierarchy isn't
  // mounted it tries to mount it; a machine without cgroup v1 is no failure here, Problem() then
  // tells what is missing. Throws on anything else.
  void Build();

  // Empty, or why this machine can't give the three hierarchies.
  [[nodiscard]] const std::string& Problem() const { return problem_; }

  // Removes the groups and what was made below them. The sandbox's processes must be gone.
  void Remove();

  // Adds the calling process to the groups. For a forked child: async-signal-safe.
  [[nodiscard]] bool JoinInChild() const;

 private:
  void BuildOne(std::size_t index);

  std::string name_;
  std::string problem_;
  // Per hierarchy the machine's real root, which stays reachable when it has been covered, and the
  // group's tasks file.
  std::array<ProcMgr::UniqueFd, kHierarchies.size()> rootFds_;
  std::array<ProcMgr::UniqueFd, kHierarchies.size()> tasksFds_;
};

}  // namespace PmSandbox

#endif  // SANDBOX_CGROUP_ROOTS_H
