#include "platform/plat/plat.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "base/small_file.h"
#include "platform/plat/plat_record.h"

namespace ProcMgr {
namespace {

constexpr const char* kRoot = "/run/plat";
constexpr const char* kOnlineNodesFile = "/sys/devices/system/node/online";
constexpr std::size_t kOnlineNodesLimit = std::size_t{16} * 1024;

PlatRecord& Record() {
  static PlatRecord record(kRoot);
  return record;
}

}  // namespace

std::uint32_t platSensorNodeRegister(std::uint32_t /*deviceId*/, const SensorNodeRecord* record,
                                     std::uint64_t* handle) {
  if (record == nullptr || handle == nullptr) {
    return static_cast<std::uint32_t>(kPlatInvalid);
  }
  const std::string name(record->name, strnlen(record->name, sizeof(record->name)));
  return Record().RegisterSensor(name, *handle);
}

std::uint32_t platSensorNodeUnregister(std::uint32_t /*deviceId*/, std::uint64_t handle) {
  return Record().UnregisterSensor(handle);
}

std::uint32_t platSensorNodeUpdateState(std::uint32_t /*deviceId*/, std::uint64_t handle,
                                        std::uint32_t value) {
  return Record().UpdateSensor(handle, value);
}

std::int32_t platGetDevNum(std::uint32_t* count) {
  if (count == nullptr) {
    return kPlatInvalid;
  }
  *count = 1;
  return 0;
}

std::int32_t platMemGetInfo(std::uint32_t /*vfId*/, std::uint32_t /*kind*/, PlatMemInfo* info) {
  if (info == nullptr) {
    return kPlatInvalid;
  }
  std::string online;
  if (const int error = ReadSmallFile(kOnlineNodesFile, kOnlineNodesLimit, online); error != 0) {
    return error;
  }
  return ParseNodeList(online, *info) ? 0 : EBADMSG;
}

std::int32_t platGrpCreate(const char* name, const PlatGrpAttr* attr) {
  return name == nullptr || attr == nullptr ? kPlatInvalid : Record().CreateGroup(name);
}

std::int32_t platGrpAddProc(const char* name, pid_t pid, std::uint32_t permission) {
  return name == nullptr ? kPlatInvalid : Record().AddProcess(name, pid, permission);
}

}  // namespace ProcMgr
