// The hardware watchdog: a kernel module that is inserted once, and a device that is told the
// feeding time-out.
//
// The boot runs EnableWatchDog alone. All run on the boot thread, and no failure stops anything.
#ifndef HOST_WATCHDOG_H
#define HOST_WATCHDOG_H

#include <string>

#include "core/host_context.h"
#include "host/proc_mgr_cfg.h"

namespace ProcMgr {

// What the operations below touch on the machine: two paths and two system calls.
struct WatchDogSystem {
  std::string modulesFile = "/proc/modules";
  std::string feedDevice = "/local/dev/qelutil_watchdog";
  // finit_module(fd, params, flags) and ioctl(fd, request, argument): 0, or another value with the
  // reason in errno.
  int (*finitModule)(int fd, const char* params, int flags) = &FinitModule;
  int (*feedIoctl)(int fd, unsigned long request, unsigned long argument) = &FeedIoctl;

  static int FinitModule(int fd, const char* params, int flags);
  static int FeedIoctl(int fd, unsigned long request, unsigned long argument);
};

// The request by which the device takes the time-out: read and write, size 8, type 'W', number 1.
// Its argument is the number of milliseconds itself, no pointer.
inline constexpr unsigned long kFeedDogRequest = 0xc0085701;

// The step at the end of the base bring-up: tells in the log whether all base services started.
void EnableWatchDog(bool flag);

// Inserts the module unless it is there or switched off. True if nothing is left to be done. The
// daemon never calls it: it is for a platform that brings the module.
[[nodiscard]] bool InsertWatchDogKo(const HostContext& context, const WatchDogCfg& cfg,
                                    const WatchDogSystem& system = WatchDogSystem{});

// True if a line of the list of loaded modules holds `koName`.
[[nodiscard]] bool IsWatchDogKoInserted(const std::string& koName,
                                        const WatchDogSystem& system = WatchDogSystem{});

// Inserts the module with the time-out and action of `cfg`. True on success.
[[nodiscard]] bool InsmodKo(const WatchDogCfg& cfg,
                            const WatchDogSystem& system = WatchDogSystem{});

// Hands the time-out to the feeding device. False also for a time-out of more than 2147483 seconds,
// whose milliseconds don't fit the request. The daemon never calls it: it is for a platform that
// has the device.
[[nodiscard]] bool EnableFeedDog(const WatchDogCfg& cfg,
                                 const WatchDogSystem& system = WatchDogSystem{});

}  // namespace ProcMgr

#endif  // HOST_WATCHDOG_H
