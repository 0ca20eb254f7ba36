// The mounts of a sandbox.
#ifndef SANDBOX_SANDBOX_MOUNTS_H
#define SANDBOX_SANDBOX_MOUNTS_H

#include "sandbox/cgroup_roots.h"

namespace PmSandbox {

// Gives the calling thread a mount namespace of its own and builds the sandbox in it. For a thread
// that ends soon after: its way back is gone. Throws with the step that failed.
void BuildSandboxMounts(CgroupRoots& cgroups);

}  // namespace PmSandbox

#endif  // SANDBOX_SANDBOX_MOUNTS_H
