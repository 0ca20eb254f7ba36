#include "core/delayed_binding.h"

#include <unistd.h>

#include <utility>

#include "base/sleep.h"
#include "core/app_lists.h"
#include "core/host_context.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kPollNs = 100'000'000;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int8_t kMaxRounds = 127;
// Between the rounds of a request that sets no end and asks for no pause: a thread that can't be
// bound would otherwise cost a processor for good.
constexpr std::int64_t kLeastPauseNs = 10'000'000;

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

std::int64_t PauseNs(const DelayCoreSettings& settings) {
  if (settings.checkInterval == 0) {
    return settings.checkNum < 0 ? kLeastPauseNs : 0;
  }
  return settings.checkInterval * kNsPerMs;
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
    if (const std::int64_t pause = PauseNs(settings); pause != 0) {
      SleepNs(pause);
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

}  // namespace

DelayCoreSettings DelayedBinding::CurrentSettings() {
  const MutexLock lock(delayCoreMutex_);
  return delayCoreCfg_;
}

// Yields 0 or kDelayedBindingFailed.
std::uint32_t DelayedBinding::SetDelayCoreAffinity(const DelayCoreSettings& cfg) {
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
  ++honouredRequests_;
  return isOk ? 0 : kDelayedBindingFailed;
}

bool DelayedBinding::WakeUpRecover() {
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

// Each honoured request has its check rounds.
void DelayedBinding::CheckCoreAffinityThread() {
  std::uint64_t seen = 0;
  while (running_.load()) {
    const std::uint64_t honoured = honouredRequests_.load();
    if (honoured == seen) {
      SleepNs(kPollNs);
      continue;
    }
    seen = honoured;
    const DelayCoreSettings settings = CurrentSettings();
    BindNewThreads(settings);
    if (!settings.isWakeUpEnable) {
      break;
    }
  }
  LogInfo("PROCMGR: CheckCoreAffinityThread exit now.");
}

void DelayedBinding::Request(const DelayCoreSettings& cfg) {
  const std::uint32_t ret = SetDelayCoreAffinity(cfg);
  if (ret != 0) {
    LogWarning("PROCMGR: delayed core binding failed, ret=0x%X", ret);
  }
  const MutexLock lock(coreAffinityThreadMutex_);
  if (!isCoreAffinityThreadStarted_) {
    coreAffinityThread_.Start(running_, [this] { CheckCoreAffinityThread(); });
    isCoreAffinityThreadStarted_ = true;
  }
}

void DelayedBinding::Stop() {
  Worker thread;
  {
    const MutexLock lock(coreAffinityThreadMutex_);
    thread = std::move(coreAffinityThread_);
  }
  thread.WakeAndJoin();
}

}  // namespace ProcMgr
