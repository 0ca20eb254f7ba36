#include "platform/plat/plat.h"

#include <cerrno>

namespace ProcMgr {
namespace {

constexpr std::uint32_t kUnknown = 2;

}  // namespace

std::uint32_t platSensorNodeRegister(std::uint32_t /*deviceId*/, const SensorNodeRecord* /*record*/,
                                     std::uint64_t* /*handle*/) {
  return ENOSYS;
}

std::uint32_t platSensorNodeUnregister(std::uint32_t /*deviceId*/, std::uint64_t /*handle*/) {
  return kUnknown;
}

std::uint32_t platSensorNodeUpdateState(std::uint32_t /*deviceId*/, std::uint64_t /*handle*/,
                                        std::uint32_t /*value*/) {
  return kUnknown;
}

std::int32_t platGetDevNum(std::uint32_t* count) {
  *count = 0;
  return 0;
}

std::int32_t platMemGetInfo(std::uint32_t /*vfId*/, std::uint32_t /*kind*/, PlatMemInfo* /*info*/) {
  return ENOSYS;
}

std::int32_t platGrpCreate(const char* /*name*/, const PlatGrpAttr* /*attr*/) {
  return ENOSYS;
}

std::int32_t platGrpAddProc(const char* /*name*/, pid_t /*pid*/, std::uint32_t /*permission*/) {
  return kUnknown;
}

}  // namespace ProcMgr
