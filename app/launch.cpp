// The parent's side of a launch. The child's side is app/child_main.h.
#include <unistd.h>

#include <cerrno>

#include "app/app_info.h"
#include "app/child_main.h"
#include "app/share_groups.h"
#include "base/boot_trace.h"
#include "core/log.h"

namespace ProcMgr::App {

bool BaseAppInfo::StartProcess() {
  if (!PrepareStart()) {
    return false;
  }
  ClearForStart();
  const std::vector<char*> argv = BuildArgv();
  const pid_t child = fork();
  if (child == 0) {
    RunBaseChild(*this, argv);
  }
  if (child < 0) {
    const int error = errno;
    LogError("PROCMGR : Start baseApp %s failed errno=%d", appName_.c_str(), error);
    return false;
  }
  pid_ = child;
  LogInfo("%s Start baseApp success appName=%s, binPath=%s, pid=%d, isDelayCoreAffinity_=%d",
          BootStrace(kBootTraceTag).c_str(), appName_.c_str(), execPath_.c_str(), pid_,
          isDelayCoreAffinity_);
  AddShareGroups(appName_, appName_, pid_, {});
  state_ = ProcessState::STARTING;
  startTime_ = SteadyNow();
  return true;
}

bool GeneralAppInfo::StartProcess() {
  if (!PrepareStart()) {
    return false;
  }
  ClearForStart();
  const std::vector<char*> argv = BuildArgv();
  const pid_t child = fork();
  if (child == 0) {
    RunGeneralChild(*this, argv);
  }
  if (child < 0) {
    const int error = errno;
    LogError("PROCMGR: Start generalApp failed. fork failed: errno=%d", error);
    return false;
  }
  pid_ = child;
  AddShareGroups(appName_, ownerName_, pid_, sharepoolGroups_);
  LogInfo("%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
          BootStrace(kBootTraceTag).c_str(), appName_.c_str(), pid_, isDelayCoreAffinity_);
  startTime_ = SteadyNow();
  return true;
}

}  // namespace ProcMgr::App
