// The NUMA memory policy of a forked child. Rules: app/child_main.h.
#ifndef APP_CHILD_MEM_POLICY_H
#define APP_CHILD_MEM_POLICY_H

#include <cstdint>
#include <string>

namespace ProcMgr::App {

// Binds the memory of the calling process to the nodes of the device function `vfId` (0 or more),
// if the system has exactly one device. Yields the reason of a failure, which the child must not
// survive, or nothing. Loads libnuma, which stays loaded until the exec.
[[nodiscard]] std::string SetMemPolicy(const std::string& appName, std::int32_t vfId);

}  // namespace ProcMgr::App

#endif  // APP_CHILD_MEM_POLICY_H
