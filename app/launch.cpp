// The parent's side of a launch. The child's side is app/child_steps.h.
#include <string>
#include <utility>
#include <vector>

#include "app/app_info.h"
#include "app/launch_plan.h"
#include "app/share_groups.h"
#include "app/spawn.h"
#include "base/boot_trace.h"
#include "core/log.h"
#include "status/memory.h"

namespace ProcMgr::App {
namespace {

// Yields the pid, or the negative errno of a failed start.
template <typename Record>
[[nodiscard]] pid_t Launch(const Record& app, UserGroupsOnce& groups, std::vector<char*> argv) {
  LaunchPlan plan;
  PlanLaunch(app, groups, plan);
  plan.argv = std::move(argv);
  const pid_t child = Spawn(plan);
  if (child > 0 && plan.isBound) {
    CoreAffinityMgr::Instance().LogMissingAiTasks(child, plan.binding);
  }
  if (child < 0) {
    Status::Memory::Instance().Refuse(app.statusId_, Status::CauseKind::kFork,
                                      "fork failed, errno=" + std::to_string(-child));
  }
  return child;
}

}  // namespace

bool BaseAppInfo::StartProcess() {
  UserGroupsOnce groups(uid_);
  if (!PrepareStart(groups)) {
    return false;
  }
  ClearForStart();
  const pid_t child = Launch(*this, groups, BuildArgv());
  if (child < 0) {
    LogError("PROCMGR : Start baseApp %s failed errno=%d", appName_.c_str(), -child);
    return false;
  }
  // From here on it is supervised, whatever else fails. Up to here the exit of the last process
  // stays on file: whatever anybody says of the record, none is there.
  pid_ = child;
  isExited_ = false;
  state_ = ProcessState::STARTING;
  startTime_ = SteadyNow();
  LogInfo("%s Start baseApp success appName=%s, binPath=%s, pid=%d, isDelayCoreAffinity_=%d",
          BootStrace(kBootTraceTag).c_str(), appName_.c_str(), execPath_.c_str(), pid_,
          isDelayCoreAffinity_);
  AddShareGroups(appName_, appName_, pid_, {});
  return true;
}

bool GeneralAppInfo::StartProcess() {
  UserGroupsOnce groups(uid_);
  if (!PrepareStart(groups)) {
    return false;
  }
  ClearForStart();
  const pid_t child = Launch(*this, groups, BuildArgv());
  if (child < 0) {
    LogError("PROCMGR: Start generalApp failed. fork failed: errno=%d", -child);
    return false;
  }
  pid_ = child;
  isExited_ = false;
  startTime_ = SteadyNow();
  AddShareGroups(appName_, ownerName_, pid_, sharepoolGroups_);
  LogInfo("%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
          BootStrace(kBootTraceTag).c_str(), appName_.c_str(), pid_, isDelayCoreAffinity_);
  return true;
}

}  // namespace ProcMgr::App
