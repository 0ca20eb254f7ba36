// One of the watchdog's operations on a real kernel: watchdog_operation insert|insert-if-allowed
// TIMEOUT ACTION, or no-feed DEVICE, which is done if the device is refused. Prints what the
// operation logs; ends with 0 if it is done.
#include "host/watchdog.h"

#include <cstdio>
#include <string>
#include <vector>

#include "core/host_context.h"
#include "core/log.h"
#include "host/kernel_cmdline.h"

namespace {

void Print(int level, const char* text) {
  std::printf("  [%d] %s\n", level, text);
}

bool Insert(bool isAsked, const std::string& timeout, const std::string& action) {
  ProcMgr::HostContext& context = ProcMgr::HostContext::Instance();
  if (isAsked) {
    ProcMgr::ParseKernelCmdline(context);
  }
  ProcMgr::WatchDogCfg cfg;
  cfg.timeout = timeout;
  cfg.action = action;
  return ProcMgr::InsertWatchDogKo(context, cfg);
}

bool Feed(const std::string& device) {
  ProcMgr::WatchDogSystem system;
  system.feedDevice = device;
  return ProcMgr::EnableFeedDog(ProcMgr::WatchDogCfg{}, system);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  ProcMgr::SetLogSink(&Print);
  if (args.size() == 3) {
    return Insert(args[0] == "insert-if-allowed", args[1], args[2]) ? 0 : 1;
  }
  return args.size() == 2 && !Feed(args[1]) ? 0 : 1;
}
