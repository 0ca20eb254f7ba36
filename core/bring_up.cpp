// The base services come up: round by round along their dependency graph, one at a time.
#include "base/boot_trace.h"
#include "base/sleep.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "host/kernel_cmdline.h"
#include "host/watchdog.h"
#include "platform/heartbeat/heartbeat.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kPauseBeforeWatchDogNs = 30'000'000;

// The output of ParseYamlFile, cleared when the boot is through. Main thread.
std::vector<ApplicationManifest> baseManifests_;

const ApplicationManifest* FindManifest(const std::string& name) {
  for (const ApplicationManifest& manifest : baseManifests_) {
    if (manifest.GetAppName() == name) {
      return &manifest;
    }
  }
  return nullptr;
}

bool EndsTheWait(ProcessState state) {
  return state == ProcessState::RUNNING || state == ProcessState::TERMINATING ||
         state == ProcessState::TERMINATED;
}

}  // namespace

bool ProcessManager::ParseYamlFile(const std::string& path,
                                   std::vector<ApplicationManifest>& manifests) {
  if (ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, path, manifests, {}) != 0) {
    return false;
  }
  HostContext& context = HostContext::Instance();
  auto names = std::make_shared<std::vector<std::string>>();
  for (const ApplicationManifest& manifest : manifests) {
    if (manifest.GetAppName().empty()) {
      LogError("PROCMGR : ParseYamlFile : appName is NULL");
      return false;
    }
    if (IsOptionalServiceAllowed(context, manifest.GetCfgPath())) {
      names->push_back(manifest.GetAppName());
    }
  }
  {
    const MutexLock lock(baseNamesMutex_);
    baseAppNames_ = std::move(names);
  }
  ReportMissingOptionalServices(context);
  return true;
}

void ProcessManager::InitBaseApplication(const std::string& path) {
  LogInfo("%s InitBaseApplication begin, yaml path=%s", BootStrace(kBootTraceTag).c_str(),
          path.c_str());
  if (!ParseYamlFile(path, baseManifests_)) {
    LogError("PROCMGR : ParseYamlFile failed, ProcMgr return");
    return;
  }
  bool startOk = true;
  DependGraph graph;
  ParseAndDepend::Instance().GetStartGraph(*BaseAppNames(), graph);
  while (!graph.IsEmpty()) {
    const std::set<std::string> round = graph.GetNoDependVertices();
    if (!StartRound(round, startOk)) {
      return;
    }
    for (const std::string& name : round) {
      graph.Pop(name);
    }
  }
  baseManifests_.clear();
  LogInfo("%s InitBaseApplication end", BootStrace(kBootTraceTag).c_str());
  SleepNs(kPauseBeforeWatchDogNs);
  EnableWatchDog(startOk);
}

// False if a name has no manifest, which ends the walk.
bool ProcessManager::StartRound(const std::set<std::string>& names, bool& startOk) {
  for (const std::string& name : names) {
    const ApplicationManifest* const manifest = FindManifest(name);
    if (manifest == nullptr) {
      LogError("PROCMGR : can't find %s", name.c_str());
      return false;
    }
    App::BaseAppInfo app(*manifest);
    if (!InitOneBaseApplication(app)) {
      LogError("process-manager cur time:%s, start baseApp=%s failed",
               BootStrace(kBootTraceTag).c_str(), name.c_str());
      startOk = false;
    }
  }
  return true;
}

bool ProcessManager::InitOneBaseApplication(App::BaseAppInfo& app) {
  const std::string& name = app.appName_;
  if (app.IsRunning()) {
    LogWarning("PROCMGR=%s is already running", name.c_str());
    return true;
  }
  if (!CheckDepends(app.dependList_, name)) {
    return false;
  }
  if (!StartAndEnter(app)) {
    return false;
  }
  ReportBaseAppState(app, ReportAppStateType::RUNNING_NORMAL_START, 0);
  if (!app.isReporting_) {
    return true;
  }
  if (!OpenFirstChannel(app)) {
    LogError("PROCMGR : procname=%s RegisterService failed", name.c_str());
    return false;
  }
  LogInfo("Register heart beat checker for %s.", name.c_str());
  RegisterHeartBeat(app);
  WaitBaseAppReported(name);
  return true;
}

// Starts the process and enters its record. An exit that comes in between waits for the entry.
bool ProcessManager::StartAndEnter(App::BaseAppInfo& app) {
  const BaseAppEntry entry;
  if (!app.StartProcess() || app.state_ != ProcessState::STARTING) {
    LogError("Start %s failed, state:%s", app.appName_.c_str(),
             GetProcessStateStr(app.state_).c_str());
    UpdateFaultSensor(app.appName_, app.nodeType_, Fault::kOn);
    return false;
  }
  const MutexLock lock(baseAppMutex_);
  EnterBaseApp(app);
  if (FindBaseApp(app.appName_) == nullptr) {
    LogError("PROCMGR : InitOneBaseApplication, not find ownerName=%s", app.appName_.c_str());
    return false;
  }
  return true;
}

// Waits for the service to serve. A restart in the meantime is waited for in the same opening; an
// end with no restart left ends the wait, whether it came before the opening or comes in it.
bool ProcessManager::OpenFirstChannel(const App::BaseAppInfo& app) {
  const std::string& name = app.appName_;
  const auto hasEnded = [&name] {
    const MutexLock lock(baseAppMutex_);
    const App::BaseAppInfo* const record = FindBaseApp(name);
    return record == nullptr ||
           (record->state_ == ProcessState::TERMINATED && !record->IsRestartKept());
  };
  return RegServiceCallBack(name, app.gid_, {.isPeerGone = hasEnded});
}

bool ProcessManager::CheckDepends(const std::set<std::string>& dependList,
                                  const std::string& name) {
  if (dependList.empty()) {
    return true;
  }
  const MutexLock lock(baseAppMutex_);
  for (const std::string& depend : dependList) {
    LogInfo("PROCMGR : %s depends on %s [%s => %s]", name.c_str(), depend.c_str(), name.c_str(),
            depend.c_str());
    if (executedBaseApp_.empty()) {
      LogError("PROCMGR : %s 's dependcy %s hasn't been started", name.c_str(), depend.c_str());
      return false;
    }
    const App::BaseAppInfo* const app = FindBaseApp(depend);
    if (app == nullptr) {
      LogError("PROCMGR : %s 's dependcy %s not find,", name.c_str(), depend.c_str());
      return false;
    }
    if (!app->IsRunning()) {
      LogError("PROCMGR : %s's dependcy %s hasn't been started", name.c_str(), depend.c_str());
      return false;
    }
    LogInfo("PROCMGR : %s's dependcy %s has been started", name.c_str(), depend.c_str());
  }
  return true;
}

void ProcessManager::RegisterHeartBeat(const App::BaseAppInfo& app) {
  const std::string& name = app.appName_;
  const int ret = RegisterCheckHeartBeat(name.c_str(), name.size(), app.gid_, &OnHeartBeatNotify);
  if (ret != 0) {
    LogError("Register heart beat for %s failed. (ret=%d)", name.c_str(), ret);
  }
}

void ProcessManager::WaitBaseAppReported(const std::string& name) {
  {
    const MutexLock listLock(baseAppMutex_);
    const App::BaseAppInfo* const app = FindBaseApp(name);
    const MutexLock lock(stateMutex_);
    // A record that has been erased already ended with no restart left.
    awaited_ = {name, app == nullptr ? ProcessState::TERMINATED : app->state_};
  }
  ProcessState state = ProcessState::STARTING;
  {
    const MutexLock lock(stateMutex_);
    while (!EndsTheWait(awaited_.state) && running_.load()) {
      LogInfo("PROCMGR: waiting for baseApp=%s reported state, RUNNING OR TERMINATING.",
              name.c_str());
      stateCond_.Wait(stateMutex_);
    }
    state = awaited_.state;
    awaited_ = {};
  }
  const std::string trace = BootStrace(kBootTraceTag);
  if (state == ProcessState::RUNNING) {
    LogInfo("%s InitBaseApp:%s success, report RUNNING!", trace.c_str(), name.c_str());
  } else if (state == ProcessState::TERMINATING) {
    LogWarning("%s InitBaseApp:%s report TERMINATING!", trace.c_str(), name.c_str());
  } else {
    LogWarning("%s InitBaseApp:%s has been %u!", trace.c_str(), name.c_str(),
               static_cast<unsigned>(state));
  }
}

bool ProcessManager::NoteAwaitedState(const App::BaseAppInfo& app) {
  if (awaited_.name != app.appName_ || EndsTheWait(awaited_.state)) {
    return false;
  }
  awaited_.state = app.state_;
  return EndsTheWait(awaited_.state);
}

std::shared_ptr<const std::vector<std::string>> ProcessManager::BaseAppNames() {
  const MutexLock lock(baseNamesMutex_);
  return baseAppNames_;
}

}  // namespace ProcMgr
