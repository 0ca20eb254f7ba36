#include "app/child_main.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "app/child_env.h"
#include "app/child_identity.h"
#include "app/child_mem_policy.h"
#include "base/child_msg_pipe.h"
#include "core/host_context.h"
#include "host/cgroups.h"
#include "host/core_affinity_mgr.h"
#include "host/host_limits.h"

namespace ProcMgr::App {
namespace {

[[noreturn]] void FailChild(const AppInfo& app, const std::string& text) {
  WriteChildMsg(app.appName_, app.pid_, text);
  _exit(1);
}

// The manager's threads block signals that they wait for; an application starts with none blocked.
void ResetSignalMask() {
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

// In a quick start the manager places its children later.
void EnterCgroups(const AppInfo& app, std::string& err) {
  if (!HostContext::Instance().isQuickStart_.load()) {
    // A missing group is told and the start goes on outside it.
    (void)AddPidToCgroupTasks({app.appName_, app.pid_, app.resGroupName_, app.cpuset_}, err);
  }
}

void BindToCores(const AppInfo& app, std::string& err) {
  const HostContext& context = HostContext::Instance();
  const bool isDue = !app.isDelayCoreAffinity_ || context.delayCoreAffinityReceived_.load();
  if (isDue && !context.isQuickStart_.load()) {
    // The reason of a failure is in the text.
    (void)CoreAffinityMgr::Instance().SetCoreAffinityToOs(app.pid_, app.coreAffinity_, err);
  }
}

// Yields errno if the exec failed for a reason that there is a text for.
[[nodiscard]] int Exec(const AppInfo& app, const std::vector<char*>& argv) {
  RestoreDescriptorLimit();
  execv(app.execPath_.c_str(), argv.data());
  const int error = errno;
  if (error == EIO) {
    _exit(kExitCodeEio);
  }
  return error;
}

void TellManager(const AppInfo& app, const std::string& err) {
  if (!err.empty()) {
    WriteChildMsg(app.appName_, app.pid_, err);
  }
}

}  // namespace

void RunBaseChild(BaseAppInfo& app, const std::vector<char*>& argv) {
  ResetSignalMask();
  app.pid_ = getpid();
  std::string err;
  SetRtPrioLimit(app.isSetRtPrio_, err);
  EnterCgroups(app, err);
  if (!SetAppUidAndGid(app.uid_, app.gid_, err)) {
    FailChild(app, err);
  }
  SetupBaseEnv(app, err);
  BindToCores(app, err);
  TellManager(app, err);
  const int error = Exec(app, argv);
  FailChild(app, "exec failed, errno=" + std::to_string(error) + ";");
}

void RunGeneralChild(GeneralAppInfo& app, const std::vector<char*>& argv) {
  ResetSignalMask();
  app.pid_ = getpid();
  std::string err;
  SetRtPrioLimit(app.isSetRtPrio_, err);
  if (app.nice_ != 0) {
    [[maybe_unused]] const int ignored = nice(app.nice_);
  }
  if (app.vfId_ >= 0) {
    const std::string policyErr = SetMemPolicy(app.appName_, app.vfId_);
    if (!policyErr.empty()) {
      FailChild(app, policyErr);
    }
  }
  EnterCgroups(app, err);
  if (!SetAppUidAndGid(app.uid_, app.gid_, err)) {
    FailChild(app, err);
  }
  SetupGeneralEnv(app, err);
  BindToCores(app, err);
  SetSchedPolicy(app.pid_, static_cast<std::uint32_t>(app.schedPolicy_), err);
  TellManager(app, err);
  const int error = Exec(app, argv);
  FailChild(app,
            "execv failed, execPath_=" + app.execPath_ + ", errno=" + std::to_string(error) + ";");
}

}  // namespace ProcMgr::App
