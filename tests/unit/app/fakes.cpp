#include "tests/unit/app/fakes.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/iam/iam.h"

namespace ProcMgr {
namespace {

// "NAME=VALUE", or "NAME" if it isn't set.
std::string Shown(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? name : std::string(name) + "=" + value;
}

}  // namespace

namespace App {

FakePlatform& Platform() {
  static FakePlatform platform;
  return platform;
}

}  // namespace App

using App::Platform;

std::uint32_t platSensorNodeRegister(std::uint32_t, const SensorNodeRecord*, std::uint64_t*) {
  return 0;
}
std::uint32_t platSensorNodeUnregister(std::uint32_t, std::uint64_t) {
  return 0;
}
std::uint32_t platSensorNodeUpdateState(std::uint32_t, std::uint64_t, std::uint32_t) {
  return 0;
}
std::int32_t platGrpCreate(const char*, const PlatGrpAttr*) {
  return 0;
}

std::int32_t platGetDevNum(std::uint32_t* count) {
  ++Platform().deviceCalls;
  *count = Platform().deviceCount;
  return Platform().deviceResult;
}

std::int32_t platMemGetInfo(std::uint32_t vfId, std::uint32_t kind, PlatMemInfo* info) {
  Platform().vfId = vfId;
  Platform().kind = kind;
  *info = Platform().memInfo;
  return Platform().memResult;
}

std::int32_t platGrpAddProc(const char* name, pid_t pid, std::uint32_t permission) {
  Platform().admitted.push_back(std::string(name) + " " + std::to_string(pid) + " " +
                                std::to_string(permission));
  return 0;
}

int IAMInitProc(const AppConfig& config) {
  const std::string saw = config.appName + "," + config.execPath + "," + Shown("HOME") + "," +
                          Shown("OWNER_NAME") + "," + Shown("KEY") +
                          ",uid=" + std::to_string(getuid());
  (void)setenv("IAM_SAW", saw.c_str(), 1);
  errno = Platform().accessError;
  return Platform().accessError == 0 ? 0 : -1;
}

void IAMRetrieveService() {}

}  // namespace ProcMgr
