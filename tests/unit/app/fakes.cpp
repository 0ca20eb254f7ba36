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

std::int32_t platGrpCreate(const char*, const PlatGrpAttr*) {
  return 0;
}

std::int32_t platGetDevNum(std::uint32_t* count) {
  *count = Platform().deviceCount;
  return Platform().deviceResult;
}

std::int32_t platMemGetInfo(std::uint32_t vfId, std::uint32_t kind, PlatMemInfo* info) {
  constexpr std::uint32_t kMemory = 6;
  *info = Platform().memInfo;
  return vfId == Platform().vfId && kind == kMemory ? Platform().memResult : -1;
}

std::int32_t platGrpAddProc(const char* name, pid_t pid, std::uint32_t permission) {
  Platform().admitted.push_back(std::string(name) + " " + std::to_string(pid) + " " +
                                std::to_string(permission));
  return 0;
}

bool IAMInitProcNeedsOwnMemory() {
  return Platform().accessNeedsOwnMemory;
}

int IAMInitProc(const AppConfig& config) {
  errno = Platform().accessError;
  const int result = Platform().accessError == 0 ? 0 : -1;
  if (!Platform().accessNeedsOwnMemory) {
    return result;
  }
  const std::string saw = config.appName + "," + config.execPath + "," + Shown("HOME") + "," +
                          Shown("OWNER_NAME") + "," + Shown("KEY") +
                          ",uid=" + std::to_string(getuid());
  (void)setenv("IAM_SAW", saw.c_str(), 1);
  errno = Platform().accessError;
  return result;
}

}  // namespace ProcMgr
