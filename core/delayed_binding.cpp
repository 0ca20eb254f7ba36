// Delayed core binding, and the way back after a wake-up.
#include "core/delayed_binding.h"

#include <unistd.h>

#include <csignal>
#include <utility>

#include "base/sleep.h"
#include "core/app_lists.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "core/stop_request.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kPollNs = 100'000'000;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int8_t kMaxRounds = 127;

// The settings of the last request.
Mutex delayCoreMutex_;
DelayCoreSettings delayCoreCfg_ GUARDED_BY(delayCoreMutex_);

DelayCoreSettings CurrentSettings() {
  const MutexLock lock(delayCoreMutex_);
  return delayCoreCfg_;
}

bool IsLeftAlone(const App::AppInfo& app, bool isWakeUpEnable) {
  return app.isExited_ || (app.isDelayCoreAffinity_ && isWakeUpEnable);
}

// A process that has been reaped has left a pid that may be a stranger's.
bool IsDelayed(const App::AppInfo& app) {
  return app.isDelayCoreAffinity_ && !app.isExited_;
}

bool ScanDelayCoreAffinityApps(bool (App::AppInfo::*operation)())
    EXCLUDES(generalAppMutex_, baseAppMutex_) {
  if (operation == nullptr) {
    LogError("ScanDelayCoreAffinityApps func is nullptr");
    return false;
  }
  bool isOk = true;
  {
    const MutexLock lock(generalAppMutex_);
    for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
      if (IsDelayed(*app)) {
        isOk = (app.get()->*operation)() && isOk;
      }
    }
  }
  const MutexLock lock(baseAppMutex_);
  for (App::BaseAppInfo& app : executedBaseApp_) {
    if (IsDelayed(app)) {
      isOk = (app.*operation)() && isOk;
    }
  }
  return isOk;
}

// Yields 0 or kDelayedBindingFailed.
std::uint32_t SetDelayCoreAffinity(const DelayCoreSettings& cfg) {
  HostContext& context = HostContext::Instance();
  if (context.delayCoreAffinityReceived_.load()) {
    LogInfo(
        "SetDelayCoreAffinity return directly as has recieved core affinity req before, will not "
        "update config or bind core");
    return 0;
  }
  const bool isOk = ScanDelayCoreAffinityApps(&App::AppInfo::BindCoreForDelayApp);
  {
    const MutexLock lock(delayCoreMutex_);
    delayCoreCfg_ = cfg;
  }
  context.delayCoreAffinityReceived_.store(true);
  return isOk ? 0 : kDelayedBindingFailed;
}

// The check rounds of one request: each binds the threads that have come up since the last.
void BindNewThreads(const DelayCoreSettings& settings) {
  LogInfo("CheckCoreAffinityThread wakeup,checkInterval=%u,checkNum=%d,isWakeUpEnable=%d",
          settings.checkInterval, settings.checkNum, settings.isWakeUpEnable);
  (void)ScanDelayCoreAffinityApps(&App::AppInfo::ClearBoundTids);
  bool isOk = false;
  std::int8_t count = 0;
  while (settings.checkNum != 0) {
    if (HostContext::Instance().coreAffinityCheckSuspend_.load()) {
      LogInfo("CheckCoreAffinityThread suspend");
      isOk = false;
      break;
    }
    isOk = ScanDelayCoreAffinityApps(&App::AppInfo::CheckMissingTids);
    if (count < kMaxRounds) {
      ++count;
    }
    if (settings.checkInterval != 0) {
      SleepNs(settings.checkInterval * kNsPerMs);
    }
    if (isOk || count == settings.checkNum) {
      break;
    }
  }
  LogInfo(
      "CheckCoreAffinityThread finish check %d times,check interval %u ms,coreAffinityOk=%d, "
      "isWakeUpEnable=%d",
      count, settings.checkInterval, isOk, settings.isWakeUpEnable);
}

std::vector<AppCoreInfo> CollectCores(bool isWakeUpEnable)
    EXCLUDES(pmUploadMutex_, generalAppMutex_, baseAppMutex_) {
  std::vector<AppCoreInfo> apps;
  {
    const MutexLock lock(baseAppMutex_);
    for (const App::BaseAppInfo& app : executedBaseApp_) {
      if (!IsLeftAlone(app, isWakeUpEnable)) {
        apps.push_back({static_cast<std::uint32_t>(app.pid_), app.coreAffinity_});
      }
    }
  }
  {
    const MutexLock lock(generalAppMutex_);
    for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
      if (!IsLeftAlone(*app, isWakeUpEnable)) {
        apps.push_back({static_cast<std::uint32_t>(app->pid_), app->coreAffinity_});
      }
    }
  }
  const MutexLock lock(pmUploadMutex_);
  for (const auto& [pid, app] : pmUploadApps_) {
    apps.push_back({static_cast<std::uint32_t>(pid), {}});
  }
  return apps;
}

bool WakeUpRecover() {
  HostContext& context = HostContext::Instance();
  const bool isWakeUpEnable = CurrentSettings().isWakeUpEnable;
  LogInfo("WakeUpRecover wakeUpDelayCoreAffinity=%d", isWakeUpEnable);
  if (isWakeUpEnable) {
    context.delayCoreAffinityReceived_.store(false);
  }
  context.coreAffinityCheckSuspend_.store(false);
  std::string err;
  if (CoreAffinityMgr::Instance().SetCoreAffinityToOs(getpid(), {}, err) != 0) {
    LogWarning("WakeUpRecover pm SetCoreAffinityToOs failed, err=%s", err.c_str());
  }
  const std::vector<AppCoreInfo> apps = CollectCores(isWakeUpEnable);
  if (isWakeUpEnable) {
    const bool isReset = ScanDelayCoreAffinityApps(&App::AppInfo::BindCoreToDefault);
    LogInfo("Reset Core Affinity to CpuSet for delay apps, ret=%d", isReset);
  }
  const bool isRecovered = CoreAffinityMgr::Instance().RecoverCoreAffinity(apps);
  if (isRecovered) {
    LogInfo("WakeUpRecover success");
  } else {
    LogError("WakeUpRecover failed");
  }
  return isRecovered;
}

}  // namespace

sigset_t PlatformSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, BindingSignal());
  sigaddset(&signals, WakeUpSignal());
  sigaddset(&signals, StopSignal());
  return signals;
}

void ProcessManager::CheckCoreAffinityThread() {
  const HostContext& context = HostContext::Instance();
  bool rearm = false;
  while (running_.load()) {
    if (!context.delayCoreAffinityReceived_.load()) {
      SleepNs(kPollNs);
      rearm = false;
      continue;
    }
    if (rearm) {
      SleepNs(kPollNs);
      continue;
    }
    const DelayCoreSettings settings = CurrentSettings();
    rearm = settings.isWakeUpEnable;
    BindNewThreads(settings);
    if (!rearm) {
      break;
    }
  }
  LogInfo("PROCMGR: CheckCoreAffinityThread exit now.");
}

// What a handler may not do, a thread that waits for the signal may.
void ProcessManager::PlatformSignalThread() {
  const sigset_t signals = PlatformSignals();
  while (running_.load()) {
    const int signal = sigwaitinfo(&signals, nullptr);
    if (signal == BindingSignal()) {
      RequestDelayedBinding();
    } else if (signal == WakeUpSignal()) {
      (void)WakeUpRecover();  // Its last line tells how it went.
    } else if (signal == StopSignal()) {
      AskForStop();
    }
  }
}

void ProcessManager::RequestDelayedBinding() {
  const std::uint32_t ret =
      SetDelayCoreAffinity(procMgrCfg_.delayCore.value_or(DelayCoreSettings{}));
  if (ret != 0) {
    LogWarning("PROCMGR: delayed core binding failed, ret=0x%X", ret);
  }
  const MutexLock lock(coreAffinityThreadMutex_);
  // One is enough: it ends only if no further request will be honoured.
  if (!isCoreAffinityThreadStarted_) {
    StartWorker(coreAffinityThread_, &ProcessManager::CheckCoreAffinityThread);
    isCoreAffinityThreadStarted_ = true;
  }
}

Worker ProcessManager::TakeCoreAffinityThread() {
  const MutexLock lock(coreAffinityThreadMutex_);
  return std::move(coreAffinityThread_);
}

}  // namespace ProcMgr
