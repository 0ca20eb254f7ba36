#include "app/mem_policy.h"

#include <dlfcn.h>

#include <cerrno>
#include <span>

#include "platform/plat/plat.h"

namespace ProcMgr::App {
namespace {

constexpr std::uint32_t kMemInfoKind = 6;
constexpr std::uint32_t kMaxNodes = 64;
constexpr int kBindToNodes = 2;  // MPOL_BIND
constexpr unsigned long kWordBits = 64;

using SetMempolicy = long (*)(int mode, const unsigned long* mask, unsigned long maxNode);

// Yields the reason of a failure.
std::string FillMask(const std::string& appName, std::span<const std::int32_t> nodes,
                     MemPolicy& policy) {
  for (const std::int32_t node : nodes) {
    // Widened with its sign, so a negative number is far above the last node.
    const auto index = static_cast<std::uint64_t>(static_cast<std::int64_t>(node));
    if (index >= kNodeMaskBits) {
      return appName + " numa node index exceed. node_id=" + std::to_string(index);
    }
    policy.mask[index / kWordBits] |= 1UL << (index % kWordBits);
  }
  return {};
}

bool BindToMask(const MemPolicy& policy) {
  void* const library = dlopen("libnuma.so.1", RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    return false;
  }
  (void)dlerror();
  const auto setPolicy = reinterpret_cast<SetMempolicy>(dlsym(library, "set_mempolicy"));
  if (dlerror() != nullptr || setPolicy == nullptr) {
    return false;
  }
  return setPolicy(kBindToNodes, policy.mask.data(), kNodeMaskBits) == 0;
}

}  // namespace

MemPolicy PlanMemPolicy(const std::string& appName, std::int32_t vfId) {
  MemPolicy policy;
  if (vfId < 0) {
    return policy;
  }
  std::uint32_t count = 0;
  if (const std::int32_t ret = platGetDevNum(&count); ret != 0) {
    policy.error = "Get device number failed when set memory policy. ret=" + std::to_string(ret);
    return policy;
  }
  if (count != 1) {
    return policy;
  }
  PlatMemInfo info{};
  if (const std::int32_t ret =
          platMemGetInfo(static_cast<std::uint32_t>(vfId), kMemInfoKind, &info);
      ret != 0) {
    policy.error = appName + " get memory info failed. vfId=" + std::to_string(vfId) +
                   ",ret=" + std::to_string(ret);
    return policy;
  }
  return PolicyOfNodes(appName, info);
}

MemPolicy PolicyOfNodes(const std::string& appName, const PlatMemInfo& info) {
  MemPolicy policy;
  if (info.nodeCount > kMaxNodes) {
    policy.error = appName + " numa node number exceed. node_cnt=" + std::to_string(info.nodeCount);
    return policy;
  }
  policy.nodeCount = info.nodeCount;
  policy.error = FillMask(appName, std::span(info.nodes).first(info.nodeCount), policy);
  policy.isWanted = policy.error.empty();
  return policy;
}

bool SetMemPolicy(const std::string& appName, const MemPolicy& policy, ErrText& text) {
  if (!policy.error.empty()) {
    text.Add(policy.error);
    return false;
  }
  if (!policy.isWanted || BindToMask(policy)) {
    return true;
  }
  const int error = errno;
  text.Add(appName).Add(" set_mempolicy failed. mask=").AddNumber(policy.mask[0]).Add("|");
  text.AddNumber(policy.mask[1]).Add(",num=").AddNumber(policy.nodeCount);
  text.Add(",errno=").AddNumber(error);
  return false;
}

}  // namespace ProcMgr::App
