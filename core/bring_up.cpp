// The base services come up: round by round along their dependency graph, one at a time.
#include <utility>

#include "base/boot_trace.h"
#include "base/sleep.h"
#include "base/steady_time.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/predecessor.h"
#include "core/process_manager.h"
#include "core/status_feed.h"
#include "host/integrity_protect.h"
#include "host/kernel_cmdline.h"
#include "host/watchdog.h"

namespace ProcMgr {
namespace {

using Status::Memory;

constexpr std::int64_t kPauseBeforeWatchDogNs = 30'000'000;
// How long a first channel is waited for while there is no process to serve it.
constexpr std::chrono::minutes kRestartLimit{3};

// Reads the base-service file, and publishes the names of what this boot takes part in.
bool ParseYamlFile(const std::string& path, BaseServiceFile& file, Reporter& reporter) {
  if (!file.Load(path)) {
    return false;
  }
  const std::vector<ApplicationManifest>& manifests = file.Manifests();
  MentionBaseApps(manifests);
  HostContext& context = HostContext::Instance();
  std::vector<std::string> names;
  for (const ApplicationManifest& manifest : manifests) {
    if (manifest.GetAppName().empty()) {
      LogError("PROCMGR : ParseYamlFile : appName is NULL");
      return false;
    }
    if (IsOptionalServiceAllowed(context, manifest.GetCfgPath())) {
      names.push_back(manifest.GetAppName());
    } else {
      Memory::Instance().LeaveOut(
          MentionBaseApp(manifest),
          "an optional service that the kernel command line doesn't ask for");
    }
  }
  reporter.PublishBaseAppNames(std::move(names));
  ReportMissingOptionalServices(context);
  return true;
}

bool CheckDepends(const App::BaseAppInfo& dependant) EXCLUDES(baseAppMutex_) {
  const std::string& name = dependant.appName_;
  const auto block = [&dependant](const std::string& depend, const char* what) {
    Memory::Instance().Block(dependant.statusId_, depend, "it needs " + depend + what);
    return false;
  };
  if (dependant.dependList_.empty()) {
    return true;
  }
  const MutexLock lock(baseAppMutex_);
  for (const std::string& depend : dependant.dependList_) {
    LogInfo("PROCMGR : %s depends on %s [%s => %s]", name.c_str(), depend.c_str(), name.c_str(),
            depend.c_str());
    if (executedBaseApp_.empty()) {
      LogError("PROCMGR : %s 's dependcy %s hasn't been started", name.c_str(), depend.c_str());
      return block(depend, ", which has not been started");
    }
    const App::BaseAppInfo* const app = FindBaseApp(depend);
    if (app == nullptr) {
      LogError("PROCMGR : %s 's dependcy %s not find,", name.c_str(), depend.c_str());
      return block(depend, ", which has not been started");
    }
    if (!app->IsRunning()) {
      LogError("PROCMGR : %s's dependcy %s hasn't been started", name.c_str(), depend.c_str());
      return block(depend, ", which is not running");
    }
    LogInfo("PROCMGR : %s's dependcy %s has been started", name.c_str(), depend.c_str());
  }
  return true;
}

// Starts the process and enters its record. An exit that comes in between waits for the entry.
bool StartAndEnter(App::BaseAppInfo& app) EXCLUDES(baseAppMutex_) {
  // Before the entry begins, for the reaper waits for its end.
  Memory::Instance().BeginChecks(app.statusId_);
  IntegrityProtect::Instance().WorkOut(app.execPath_);
  ProcMgrMaster::ClearName(app.appName_, app.uid_, app.gid_);
  const BaseAppEntry entry;
  if (!app.StartProcess() || app.state_ != ProcessState::STARTING) {
    LogError("Start %s failed, state:%s", app.appName_.c_str(),
             GetProcessStateStr(app.state_).c_str());
    UpdateFaultSensor(app.appName_, app.nodeType_, Fault::kOn);
    return false;
  }
  Memory::Instance().NoteStarted(app.statusId_, app.pid_);
  const MutexLock lock(baseAppMutex_);
  EnterBaseApp(app);
  if (FindBaseApp(app.appName_) == nullptr) {
    LogError("PROCMGR : InitOneBaseApplication, not find ownerName=%s", app.appName_.c_str());
    return false;
  }
  return true;
}

}  // namespace

void ProcessManager::InitBaseApplication(const std::string& path) {
  LogInfo("%s InitBaseApplication begin, yaml path=%s", BootStrace(kBootTraceTag).c_str(),
          path.c_str());
  if (!ParseYamlFile(path, baseServiceFile_, reporter_)) {
    LogError("PROCMGR : ParseYamlFile failed, ProcMgr return");
    return;
  }
  TellOrphans(baseServiceFile_.Manifests());
  bool startOk = true;
  DependGraph graph;
  ParseAndDepend::Instance().GetStartGraph(*reporter_.BaseAppNames(), graph);
  while (!graph.IsEmpty()) {
    const std::set<std::string> round = graph.GetNoDependVertices();
    if (!StartRound(round, startOk)) {
      return;
    }
    for (const std::string& name : round) {
      graph.Pop(name);
    }
  }
  baseServiceFile_.Clear();
  if (stop_.IsAsked()) {
    return;  // The last service may have been given up half-way.
  }
  LogInfo("%s InitBaseApplication end", BootStrace(kBootTraceTag).c_str());
  {
    const Status::PhaseScope pause(Status::Phase::kPause);
    SleepNs(kPauseBeforeWatchDogNs);
  }
  EnableWatchDog(startOk);
}

// False if a name has no manifest, or if the manager is to stop, which ends the walk.
bool ProcessManager::StartRound(const std::set<std::string>& names, bool& startOk) {
  for (const std::string& name : names) {
    if (stop_.IsAsked()) {
      return false;
    }
    const ApplicationManifest* const manifest = baseServiceFile_.Find(name);
    if (manifest == nullptr) {
      LogError("PROCMGR : can't find %s", name.c_str());
      return false;
    }
    App::BaseAppInfo app(*manifest);
    app.statusId_ = MentionBaseApp(*manifest);
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
  if (!CheckDepends(app)) {
    return false;
  }
  if (!StartAndEnter(app)) {
    return false;
  }
  reporter_.ReportBaseAppState(app, ReportAppStateType::RUNNING_NORMAL_START, 0);
  if (!app.isReporting_) {
    return true;
  }
  const Status::AwaitScope await(app.statusId_);
  if (!OpenFirstChannel(name)) {
    LogError("PROCMGR : procname=%s RegisterService failed", name.c_str());
    return false;
  }
  LogInfo("Register heart beat checker for %s.", name.c_str());
  RegisterHeartBeat(app);
  WaitBaseAppReported(name);
  return true;
}

// Waits for the service to serve. The opening ends with the process that it was begun for; the
// check pass begins another for each that takes its place, and what one of them connects to is the
// service's channel. An end that nothing follows ends the wait.
bool ProcessManager::OpenFirstChannel(const std::string& name) {
  bool isAsked = false;
  SteadyTime deadline = SteadyNow() + kRestartLimit;
  while (!stop_.IsAsked()) {
    const std::uint64_t seen = handshake_.Events();
    switch (StepFirstChannel(name, isAsked)) {
      case FirstChannel::kOpen:
        return true;
      case FirstChannel::kFailed:
        return false;
      case FirstChannel::kUnderWay:
        deadline = SteadyTime::max();
        break;
      case FirstChannel::kAwaitsRestart:
        if (deadline == SteadyTime::max()) {
          deadline = SteadyNow() + kRestartLimit;
        } else if (SteadyNow() >= deadline) {
          ProcMgrMaster::TellOpeningFailed(kNexioTimeout, 0);
          return false;
        }
        break;
    }
    handshake_.WaitForEvent(seen, deadline);
  }
  return false;
}

// One look at the record and its channel. Begins the first opening, once, under the lock under
// which an exit is filed: so the end of the process ends the opening.
FirstChannel ProcessManager::StepFirstChannel(const std::string& name, bool& isAsked) {
  const MutexLock lock(baseAppMutex_);
  const App::BaseAppInfo* const app = FindBaseApp(name);
  if (app == nullptr || (app->state_ == ProcessState::TERMINATED && !app->IsRestartKept())) {
    ProcMgrMaster::TellOpeningFailed(kNexioBroken, 0);
    return FirstChannel::kFailed;
  }
  if (master_.GetFdFromProcName(name) > 0) {
    return FirstChannel::kOpen;
  }
  if (ProcMgrMaster::IsOpening(name)) {
    return FirstChannel::kUnderWay;
  }
  if (app->isExited_ || app->state_ == ProcessState::TERMINATED) {
    return FirstChannel::kAwaitsRestart;
  }
  if (isAsked) {
    return FirstChannel::kFailed;
  }
  isAsked = true;
  Memory::Instance().BeginPhase(Status::Phase::kOpen, app->statusId_);
  master_.RegServiceCallBack(name, app->gid_, {.isEndExpected = true},
                             [this, id = app->statusId_](bool) {
                               Memory::Instance().EndPhase(Status::Phase::kOpen, id);
                               NoteOpeningEnd();
                             });
  return FirstChannel::kUnderWay;
}

void ProcessManager::WaitBaseAppReported(const std::string& name) {
  {
    const MutexLock lock(baseAppMutex_);
    handshake_.Await(name);
  }
  const ProcessState state = handshake_.WaitForState();
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

}  // namespace ProcMgr
