// The mounts of a sandbox.
#ifndef TESTS_SUPPORT_SANDBOX_MOUNTS_H
#define TESTS_SUPPORT_SANDBOX_MOUNTS_H

#include "tests/support/cgroup_roots.h"

namespace PmTest {

// Gives the calling thread a mount namespace of its own and builds the sandbox in it. For a thread
// that ends soon after: its way back is gone. Throws with the step that failed.
void BuildSandboxMounts(CgroupRoots& cgroups);

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SANDBOX_MOUNTS_H
