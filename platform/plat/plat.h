// The interface of the platform library: fault sensors, devices and share pool groups.
//
// Every function may be called from any thread and takes no lock that outlives the call.
#ifndef PLATFORM_PLAT_PLAT_H
#define PLATFORM_PLAT_PLAT_H

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ProcMgr {

struct SensorNodeRecord {
  char name[20];  // Zero-terminated.
  std::uint16_t nodeId;
  std::uint8_t sensorType;
};

// Yields 0 and a handle from 1 up.
[[nodiscard]] std::uint32_t platSensorNodeRegister(std::uint32_t deviceId,
                                                   const SensorNodeRecord* record,
                                                   std::uint64_t* handle);
std::uint32_t platSensorNodeUnregister(std::uint32_t deviceId, std::uint64_t handle);
// Yields 0, or 2 for an unknown handle.
[[nodiscard]] std::uint32_t platSensorNodeUpdateState(std::uint32_t deviceId, std::uint64_t handle,
                                                      std::uint32_t value);

// The NUMA nodes of a device function.
struct PlatMemInfo {
  std::uint32_t nodeCount;
  std::array<std::int32_t, 64> nodes;
};

[[nodiscard]] std::int32_t platGetDevNum(std::uint32_t* count);
[[nodiscard]] std::int32_t platMemGetInfo(std::uint32_t vfId, std::uint32_t kind,
                                          PlatMemInfo* info);

// How a share pool group is to be made.
struct PlatGrpAttr {
  std::uint64_t memSize;  // KB
  std::uint32_t reserved;
  std::uint32_t magic;
  std::array<std::uint8_t, 120> reserved2;
};
static_assert(sizeof(PlatGrpAttr) == 136);
static_assert(offsetof(PlatGrpAttr, magic) == 12);

inline constexpr std::int32_t kPlatGrpExists = 66;

// Yields 0, kPlatGrpExists for a known group, 22 for an empty name or one above 63 bytes.
[[nodiscard]] std::int32_t platGrpCreate(const char* name, const PlatGrpAttr* attr);
// Yields 0, 2 for an unknown group, 3 for a pid that doesn't exist.
[[nodiscard]] std::int32_t platGrpAddProc(const char* name, pid_t pid, std::uint32_t permission);

}  // namespace ProcMgr

#endif  // PLATFORM_PLAT_PLAT_H
