#include "host/watchdog.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>

#include "base/small_file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr std::int32_t kMsPerSecond = 1000;
static_assert(kFeedDogRequest == _IOWR('W', 1, std::uint64_t));

}  // namespace

int WatchDogSystem::FinitModule(int fd, const char* params, int flags) {
  // glibc has no wrapper.
  return static_cast<int>(syscall(SYS_finit_module, fd, params, flags));
}

int WatchDogSystem::FeedIoctl(int fd, unsigned long request, unsigned long argument) {
  return ioctl(fd, request, argument);
}

void EnableWatchDog(bool flag) {
  LogDebug("PROCMGR : EnableWatchDog flag=%d", flag ? 1 : 0);
}

bool InsertWatchDogKo(const HostContext& context, const WatchDogCfg& cfg,
                      const WatchDogSystem& system) {
  if (context.qelcoreEnable && context.disableWatchDog_) {
    LogWarning("Watchdog is disabled by cmdline parameter. Donot insert ko");
    return true;
  }
  if (!cfg.enable) {
    LogWarning("%s is disable, so not need insert", cfg.koPath.c_str());
    return true;
  }
  if (access(cfg.koPath.c_str(), F_OK) != 0) {
    LogError("%s is not existed errno=%d", cfg.koPath.c_str(), errno);
    return false;
  }
  return IsWatchDogKoInserted(cfg.koName, system) || InsmodKo(cfg, system);
}

bool IsWatchDogKoInserted(const std::string& koName, const WatchDogSystem& system) {
  // A list that can't be read holds nothing: the kernel refuses a second insertion anyway.
  std::string modules;
  (void)ReadSmallFile(system.modulesFile, kConfigFileLimit, modules);
  if (modules.find(koName) != std::string::npos) {
    LogWarning("Watchdog ko=%s is already insert", koName.c_str());
    return true;
  }
  LogInfo("Watchdog ko checking, ko=%s has not been inserted", koName.c_str());
  return false;
}

bool InsmodKo(const WatchDogCfg& cfg, const WatchDogSystem& system) {
  const UniqueFd module(open(cfg.koPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (!module.IsOpen()) {
    LogError("InsmodKo failed. open ko=%s failed errno=%d", cfg.koPath.c_str(), errno);
    return false;
  }
  LogInfo("Open watchdog ko successfully, watchdog ko=%s, fd=%d", cfg.koPath.c_str(), module.Get());
  const std::string params =
      "timeout=" + cfg.timeout + " action=" + cfg.action + " disable_on_poweroff=1";
  if (system.finitModule(module.Get(), params.c_str(), 0) != 0) {
    LogError("InsmodKo failed. finit_module ko=%s failed errno=%d, params=%s", cfg.koPath.c_str(),
             errno, params.c_str());
    return false;
  }
  LogInfo("Insmod %s success !!!, param=%s", cfg.koPath.c_str(), params.c_str());
  return true;
}

bool EnableFeedDog(const WatchDogCfg& cfg, const WatchDogSystem& system) {
  const char* const device = system.feedDevice.c_str();
  const UniqueFd feeder(open(device, O_RDONLY | O_CLOEXEC));
  if (!feeder.IsOpen()) {
    LogError("EnableFeedDog failed. open device=%s failed errno=%d", device, errno);
    return false;
  }
  LogInfo("Enable feeding dog, open device=%s successfully, fd=%d", device, feeder.Get());
  const std::optional<std::int32_t> seconds = ParseNumber<std::int32_t>(cfg.timeout);
  constexpr std::int32_t kMaxSeconds = std::numeric_limits<std::int32_t>::max() / kMsPerSecond;
  if (!seconds || *seconds < 0 || *seconds > kMaxSeconds) {
    LogError("EnableFeedDog failed. device=%s, timeout=%s s is not from 0 to %d", device,
             cfg.timeout.c_str(), kMaxSeconds);
    return false;
  }
  const std::int32_t timeoutMs = *seconds * kMsPerSecond;
  if (system.feedIoctl(feeder.Get(), kFeedDogRequest, static_cast<unsigned long>(timeoutMs)) != 0) {
    LogError("EnableFeedDog failed. ioctl failed. device=%s, errno=%d, timeout=%d", device, errno,
             timeoutMs);
    return false;
  }
  LogInfo("Enable feeding watchdog ioctl successfully, device=%s, timeout=%dms", device, timeoutMs);
  return true;
}

}  // namespace ProcMgr
