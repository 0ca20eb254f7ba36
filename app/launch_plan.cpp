#include "app/launch_plan.h"

#include "app/launch_env.h"
#include "core/host_context.h"

namespace ProcMgr::App {
namespace {

void PlanPlacement(const AppInfo& app, LaunchPlan& plan) {
  const HostContext& context = HostContext::Instance();
  if (context.isQuickStart_.load()) {
    return;
  }
  plan.cgroups = FindCgroupTasks(app.resGroupName_, app.cpuset_);
  plan.isBound = !app.isDelayCoreAffinity_ || context.delayCoreAffinityReceived_.load();
  if (plan.isBound) {
    plan.binding = CoreAffinityMgr::Instance().PlanBinding(app.coreAffinity_);
  }
}

void PlanIdentity(const AppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan) {
  plan.uid = app.uid_;
  plan.gid = app.gid_;
  plan.user = groups.Get();
}

void PlanCommon(const AppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan) {
  plan.config = {app.appName_, app.execPath_};
  plan.isSetRtPrio = app.isSetRtPrio_;
  PlanPlacement(app, plan);
  PlanIdentity(app, groups, plan);
  plan.needsOwnMemory = IAMInitProcNeedsOwnMemory();
}

// The pointers as they are now.
std::vector<char*> Snapshot(const Environment& env) {
  char* const* const first = env.Pointers();
  char* const* last = first;
  while (*last != nullptr) {
    ++last;
  }
  return {first, last + 1};
}

}  // namespace

void PlanLaunch(const BaseAppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan) {
  PlanCommon(app, groups, plan);
  SetupBaseEnv(app, plan.env, plan.envErr);
  plan.accessEnv = Snapshot(plan.env);
  SetupBaseEnvBehindAccess(app, plan.env, plan.envErrBehindAccess);
  plan.execErr = "exec failed, errno=";
}

void PlanLaunch(const GeneralAppInfo& app, UserGroupsOnce& groups, LaunchPlan& plan) {
  PlanCommon(app, groups, plan);
  plan.nice = app.nice_;
  plan.memPolicy = PlanMemPolicy(app.appName_, app.vfId_);
  SetupGeneralEnv(app, plan.env, plan.envErr);
  plan.accessEnv = Snapshot(plan.env);
  SetupGeneralEnvBehindAccess(app, plan.env, plan.envErrBehindAccess);
  plan.schedPolicy = static_cast<std::uint32_t>(app.schedPolicy_);
  plan.execErr = "execv failed, execPath_=" + app.execPath_ + ", errno=";
  plan.needsOwnMemory = plan.needsOwnMemory || plan.memPolicy.isWanted;
}

}  // namespace ProcMgr::App
