// The NUMA memory policy of an application that belongs to a device function.
#ifndef APP_MEM_POLICY_H
#define APP_MEM_POLICY_H

#include <array>
#include <cstdint>
#include <string>

#include "base/fixed_text.h"

namespace ProcMgr {
struct PlatMemInfo;
}

namespace ProcMgr::App {

// The width of the mask that is handed to the kernel, in bits.
inline constexpr unsigned long kNodeMaskBits = 128;

struct MemPolicy {
  bool isWanted = false;  // Whether the memory is to be bound to `mask`.
  std::string error;      // Why that could not be found out; then the child must not go on.
  std::array<unsigned long, kNodeMaskBits / 64> mask{};
  std::uint32_t nodeCount = 0;
};

// Asks the platform for the nodes of the device function `vfId`; a negative one has none, and
// nobody is asked. Wanted only if the system has exactly one device. Parent.
[[nodiscard]] MemPolicy PlanMemPolicy(const std::string& appName, std::int32_t vfId);

// What binds the memory to these nodes. Any thread.
[[nodiscard]] MemPolicy PolicyOfNodes(const std::string& appName, const PlatMemInfo& info);

// Binds the memory of the calling process to the nodes. False with the reason in `text`: the child
// must not go on. Loads libnuma, which stays loaded until the exec: for a child with memory of its
// own.
[[nodiscard]] bool SetMemPolicy(const std::string& appName, const MemPolicy& policy, ErrText& text);

}  // namespace ProcMgr::App

#endif  // APP_MEM_POLICY_H
