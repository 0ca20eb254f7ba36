#include "app/child_mem_policy.h"

#include <dlfcn.h>

#include <array>
#include <cerrno>
#include <span>

#include "platform/plat/plat.h"

namespace ProcMgr::App {
namespace {

constexpr std::uint32_t kMemInfoKind = 6;
constexpr std::uint32_t kMaxNodes = 64;
constexpr int kBindToNodes = 2;  // MPOL_BIND
constexpr unsigned long kMaskBits = 128;
constexpr unsigned long kWordBits = 64;

using NodeMask = std::array<unsigned long, kMaskBits / kWordBits>;
using SetMempolicy = long (*)(int mode, const unsigned long* mask, unsigned long maxNode);

// Yields the reason of a failure.
std::string FillMask(const std::string& appName, std::span<const std::int32_t> nodes,
                     NodeMask& mask) {
  for (const std::int32_t node : nodes) {
    // Widened with its sign, so a negative number is far above the last node.
    const auto index = static_cast<std::uint64_t>(static_cast<std::int64_t>(node));
    if (index >= kMaskBits) {
      return appName + " numa node index exceed. node_id=" + std::to_string(index);
    }
    mask[index / kWordBits] |= 1UL << (index % kWordBits);
  }
  return {};
}

bool BindToMask(const NodeMask& mask) {
  void* const library = dlopen("libnuma.so.1", RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    return false;
  }
  (void)dlerror();
  const auto setPolicy = reinterpret_cast<SetMempolicy>(dlsym(library, "set_mempolicy"));
  if (dlerror() != nullptr || setPolicy == nullptr) {
    return false;
  }
  return setPolicy(kBindToNodes, mask.data(), kMaskBits) == 0;
}

}  // namespace

std::string SetMemPolicy(const std::string& appName, std::int32_t vfId) {
  std::uint32_t count = 0;
  if (const std::int32_t ret = platGetDevNum(&count); ret != 0) {
    return "Get device number failed when set memory policy. ret=" + std::to_string(ret);
  }
  if (count != 1) {
    return {};
  }
  PlatMemInfo info{};
  if (const std::int32_t ret =
          platMemGetInfo(static_cast<std::uint32_t>(vfId), kMemInfoKind, &info);
      ret != 0) {
    return appName + " get memory info failed. vfId=" + std::to_string(vfId) +
           ",ret=" + std::to_string(ret);
  }
  if (info.nodeCount > kMaxNodes) {
    return appName + " numa node number exceed. node_cnt=" + std::to_string(info.nodeCount);
  }
  NodeMask mask{};
  std::string policyErr = FillMask(appName, std::span(info.nodes).first(info.nodeCount), mask);
  if (policyErr.empty() && !BindToMask(mask)) {
    const int error = errno;
    policyErr = appName + " set_mempolicy failed. mask=" + std::to_string(mask[0]) + "|" +
                std::to_string(mask[1]) + ",num=" + std::to_string(info.nodeCount) +
                ",errno=" + std::to_string(error);
  }
  return policyErr;
}

}  // namespace ProcMgr::App
