// The supervision loop: a pass over all records, every 30 ms.
#include <algorithm>
#include <chrono>
#include <functional>

#include "base/lost_time.h"
#include "base/names.h"
#include "base/sleep.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/log.h"
#include "core/pass_bell.h"
#include "core/process_manager.h"
#include "core/self_reported.h"
#include "host/core_affinity_mgr.h"
#include "host/integrity_protect.h"
#include "platform/heartbeat/heartbeat.h"
#include "status/memory.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kPauseNs = 30'000'000;

// What is done at every so many passes; where passes don't keep time, as often by the clock.
class SlowDuty {
 public:
  explicit SlowDuty(std::uint64_t passes)
      : passes_(passes),
        period_(std::chrono::nanoseconds(kPauseNs) * passes),
        next_(SteadyNow() + period_) {}

  [[nodiscard]] bool IsDue(std::uint64_t pass) {
    if (!passBell.IsEnabled()) {
      return pass % passes_ == 0;
    }
    const SteadyTime now = SteadyNow();
    if (now < next_) {
      return false;
    }
    next_ = now + period_;
    return true;
  }

 private:
  const std::uint64_t passes_;
  const SteadyTime::duration period_;
  SteadyTime next_;
};

// Its new process needs a digest that isn't known yet: the record stays as it is.
bool AwaitsDigest(const App::GeneralAppInfo& app) {
  return app.state_ == ProcessState::RESTARTING && app.isExited_ && app.isRestartStarted_ == 0 &&
         !IntegrityProtect::Instance().IsWorkedOut(app.execPath_);
}

// The exit has ended the opening that was under way, whose thread may not have noticed yet. Until
// then no other process may come up under the name: the opening would take it for the old one.
bool IsOpeningEnding(const App::BaseAppInfo& app) {
  return app.isExited_ && ProcMgrMaster::IsOpening(app.appName_);
}

void RecycleThreads(const App::AppInfo& app) {
  CoreAffinityMgr::Instance().RecycleThreadCoreInfo(app.pid_, app.appName_);
}

// What an event of a general application means beyond its report.
void FollowUp(const App::GeneralAppInfo& app) {
  switch (app.reportState_) {
    case ReportAppStateType::RUNNING_NORMAL_START:
    case ReportAppStateType::RUNNING_NORMAL_RESTART:
      UpdateFaultSensor(app.appName_, app.nodeType_, Fault::kOff);
      break;
    case ReportAppStateType::TERMINATED_NORMAL_EXIT:
      RecycleThreads(app);
      break;
    case ReportAppStateType::TERMINATED_ABNORMAL_EXIT:
      RecycleThreads(app);
      UpdateFaultSensor(app.appName_, app.nodeType_, Fault::kOn);
      break;
    default:
      break;
  }
}

bool RestartBaseApp(const std::string& name) REQUIRES(baseAppMutex_) {
  App::BaseAppInfo* const app = FindBaseApp(name);
  if (app == nullptr) {
    LogWarning("PROCMGR : Failed to find a process %s from executedBaseApp_", name.c_str());
    return false;
  }
  if (app->state_ != ProcessState::TERMINATED) {
    LogError("PROCMGR : gonna restart process %s, but state=%s is not TERMINATED ", name.c_str(),
             GetProcessStateStr(app->state_).c_str());
    return false;
  }
  LogInfo("PROCMGR : Restarting process %s", name.c_str());
  ProcMgrMaster::ClearName(name, app->uid_, app->gid_);
  if (!RelaunchBaseApp(*app)) {
    LogError("PROCMGR : Restarting process : %s failed ", name.c_str());
    return false;
  }
  if (app->isReporting_) {
    LogInfo("PROCMGR : Register check for %s, when Restarting.", name.c_str());
    RegisterHeartBeat(*app);
  } else {
    // A reporting application clears its fault with its report.
    UpdateFaultSensor(name, app->nodeType_, Fault::kOff);
  }
  return true;
}

std::uint32_t IsTerminatedByEio(const App::AppInfo& app) {
  if (app.reportState_ != ReportAppStateType::TERMINATED_ABNORMAL_EXIT || !app.isTerminatedByEio_) {
    return 0;
  }
  LogError("PROCMGR: appName=%s, pid=%d, terminated as input/output error", app.appName_.c_str(),
           app.pid_);
  return 1;
}

void CollectChange(const App::GeneralAppInfo& app, std::vector<AppChange>& changes)
    REQUIRES(generalAppMutex_) EXCLUDES(baseAppMutex_) {
  AppChange change{app.ownerName_, MakeAppStateInfo(app, app.reportState_, IsTerminatedByEio(app))};
  if (app.isPriorityPending_) {
    if (!IsAccessServiceReady()) {
      return;  // It asks for the state of all priority applications when it comes up.
    }
    change.owner = kAccessService;
  }
  changes.push_back(std::move(change));
}

// An abnormal exit has closed the service's channel already. A service that announced its end keeps
// it up to here, for it may come back by its policy.
void DropChannel(const App::BaseAppInfo& app, ProcMgrMaster& master) {
  const std::string& name = app.appName_;
  if (master.GetFdFromProcName(name) > 0) {
    ProcMgrMaster::UnRegServiceCallBack(name);
    UnregisterCheckHeartBeat(name.c_str(), name.size());
  }
}

// A service that doesn't report has promised no channel, so it isn't waited for as long as one that
// does.
OpenTerms TermsOf(const App::BaseAppInfo& app) {
  constexpr std::chrono::milliseconds kPatience{100};
  OpenTerms terms;
  if (!app.isReporting_) {
    terms.patience = kPatience;
  }
  return terms;
}

// A service whose channel was cut, by itself or by another process of its user, is to be heard
// again if it lives on. `ended` is told when an opening is over.
void ReopenCutChannels(ProcMgrMaster& master, const std::function<void()>& ended)
    EXCLUDES(baseAppMutex_) {
  for (const std::string& name : ProcMgrMaster::TakeCut(SteadyNow())) {
    const MutexLock lock(baseAppMutex_);
    const App::BaseAppInfo* const app = FindBaseApp(name);
    const bool isUp = app != nullptr && !app->isExited_ &&
                      (app->state_ == ProcessState::STARTING || app->IsRunning());
    if (!isUp || ProcMgrMaster::IsOpening(name)) {
      continue;
    }
    LogWarning("PROCMGR : the channel of %s was cut and is opened again, pid=%d", name.c_str(),
               app->pid_);
    OpenTerms terms = TermsOf(*app);
    terms.isEndExpected = true;
    master.RegServiceCallBack(name, app->gid_, terms, [ended](bool) { ended(); });
  }
}

}  // namespace

void ProcessManager::CheckThread() {
  SlowDuty uploads(11);
  SlowDuty coreBindings(21);
  LostTime lostTime;
  for (std::uint64_t pass = 1; running_.load(); ++pass) {
    CheckBaseApps();
    if (!stop_.IsAsked()) {
      ReopenCutChannels(master_, [this] { NoteOpeningEnd(); });
    }
    const SteadyTime due = CheckGeneralApps(lostTime.Look());
    RemoveTerminatedApps();
    if (uploads.IsDue(pass)) {
      CheckPmUploadApps(reporter_);
    }
    if (coreBindings.IsDue(pass)) {
      CoreAffinityMgr::Instance().CheckThreadCoreInfos();
    }
    if (passBell.IsEnabled()) {
      passBell.WaitUntil(std::min(due, SteadyNow() + std::chrono::nanoseconds(kPauseNs)));
    } else {
      SleepNs(kPauseNs);
    }
  }
  LogWarning("PROCMGR: CheckThread exit now.");
}

void ProcessManager::CheckBaseApps() {
  const MutexLock lock(baseAppMutex_);
  if (!baseRest_.Lasts(baseAppMutex_)) {
    baseRest_.Note(StepBaseApps(), baseAppMutex_);
  }
  handshake_.PublishAwaited();
}

// Yields whether all are at rest.
bool ProcessManager::StepBaseApps() {
  bool isResting = true;
  for (App::BaseAppInfo& app : executedBaseApp_) {
    if (app.isDigestAwaited_) {
      RestartIfWanted(app);
      isResting = false;
      continue;
    }
    if (app.IsAtRest()) {
      continue;
    }
    isResting = false;
    if (IsOpeningEnding(app)) {
      continue;
    }
    handshake_.Step(app);
    switch (app.reportState_) {
      case ReportAppStateType::RUNNING_NORMAL_START:
        Status::Memory::Instance().NoteRunning(app.statusId_);
        UpdateFaultSensor(app.appName_, app.nodeType_, Fault::kOff);
        break;
      case ReportAppStateType::TERMINATED_NORMAL_EXIT:
        RecycleThreads(app);
        reporter_.ReportBaseAppState(app, ReportAppStateType::TERMINATED_NORMAL_EXIT, 0);
        handshake_.NoteEvent();
        break;
      case ReportAppStateType::TERMINATED_ABNORMAL_EXIT:
        HandleAbnormalExit(app);
        break;
      default:
        break;
    }
  }
  return isResting;
}

void ProcessManager::HandleAbnormalExit(App::BaseAppInfo& app) {
  const std::string& name = app.appName_;
  LogWarning("PROCMGR: CheckThread : owner=%s, pid=%d, state=%s unpexpectedly terminated.",
             name.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
  RecycleThreads(app);
  reporter_.ReportBaseAppState(app, ReportAppStateType::TERMINATED_ABNORMAL_EXIT,
                               IsTerminatedByEio(app));
  UpdateFaultSensor(name, app.nodeType_, Fault::kOn);
  if (app.isReporting_) {
    ProcMgrMaster::UnRegServiceCallBack(name);
  }
  UnregisterCheckHeartBeat(name.c_str(), name.size());
  RestartIfWanted(app);
}

void ProcessManager::RestartIfWanted(App::BaseAppInfo& app) {
  const char* const name = app.appName_.c_str();
  if (stop_.IsAsked()) {
    app.restart_ = "no";
    Status::Memory::Instance().DropRestarts(app.statusId_);
  }
  app.isDigestAwaited_ =
      app.IsRestartKept() && !IntegrityProtect::Instance().IsWorkedOut(app.execPath_);
  if (app.isDigestAwaited_) {
    return;
  }
  if (!app.CheckRestart()) {
    LogInfo("PROCMGR: CheckThread : owner=%s, pid=%d, state=%s doesn't need to restart", name,
            app.pid_, GetProcessStateStr(app.state_).c_str());
    // The bring-up may still wait for the service to serve.
    handshake_.NoteEvent();
    return;
  }
  LogInfo("PROCMGR: CheckThread : owner=%s, pid=%d, state=%s will restart now", name, app.pid_,
          GetProcessStateStr(app.state_).c_str());
  if (!RestartBaseApp(app.appName_)) {
    LogError("PROCMGR: CheckThread : owner=%s, pid=%d, state=%s restart failed", name, app.pid_,
             GetProcessStateStr(app.state_).c_str());
    return;
  }
  reporter_.ReportBaseAppState(app, ReportAppStateType::RUNNING_NORMAL_START, 0);
  OpenNewChannel(app);
}

// Goes on without this thread.
void ProcessManager::OpenNewChannel(const App::BaseAppInfo& app) {
  master_.RegServiceCallBack(
      app.appName_, app.gid_, TermsOf(app),
      [this, name = app.appName_, pid = app.pid_, state = app.state_](bool isOpen) {
        if (isOpen) {
          LogInfo("PROCMGR: CheckThread : owner=%s, pid=%d, state=%s restart success", name.c_str(),
                  pid, GetProcessStateStr(state).c_str());
        } else {
          LogError("PROCMGR : procname=%s RegisterService failed", name.c_str());
        }
        NoteOpeningEnd();
      });
}

// The bring-up may wait for it, and so may the record: its process has ended, and no other comes up
// before the opening is over.
void ProcessManager::NoteOpeningEnd() {
  handshake_.NoteEvent();
  passBell.Ring();
}

SteadyTime ProcessManager::CheckGeneralApps(SteadyTime::duration lost) {
  SteadyTime due = SteadyTime::max();
  std::vector<AppChange> changes;
  {
    const MutexLock lock(generalAppMutex_);
    if (generalRest_.Lasts(generalAppMutex_)) {
      return due;
    }
    generalRest_.Note(StepGeneralApps(lost, due, changes), generalAppMutex_);
  }
  reporter_.ReportGeneralApps(changes);
  return due;
}

// Yields whether all are at rest.
bool ProcessManager::StepGeneralApps(SteadyTime::duration lost, SteadyTime& due,
                                     std::vector<AppChange>& changes) {
  bool isResting = true;
  const SteadyTime now = SteadyNow();
  for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
    if (app->IsAtRest()) {
      continue;
    }
    isResting = false;
    if (app->state_ == ProcessState::RESTARTING && stop_.IsAsked()) {
      app->EndForGood();
    }
    if (AwaitsDigest(*app)) {
      continue;
    }
    app->termBeginTime_ = std::min(app->termBeginTime_ + lost, now);
    StepGeneralApp(*app, now);
    due = std::min(due, app->TermTimeEnd());
    if (app->reportState_ == ReportAppStateType::INVALID_INTERMEDIATE_STATE) {
      continue;
    }
    LogInfo("PROCMGR: CheckThread : generalAppName=%s, pid=%d, state=%s get statechange",
            app->appName_.c_str(), app->pid_, GetProcessStateStr(app->state_).c_str());
    CollectChange(*app, changes);
    FollowUp(*app);
  }
  return isResting;
}

void ProcessManager::RemoveTerminatedApps() {
  {
    const MutexLock lock(baseAppMutex_);
    if (!baseRest_.Lasts(baseAppMutex_)) {
      RemoveTerminatedBaseApps();
    }
  }
  const MutexLock lock(generalAppMutex_);
  if (!generalRest_.Lasts(generalAppMutex_)) {
    RemoveTerminatedGeneralApps();
  }
}

void ProcessManager::RemoveTerminatedBaseApps() {
  RemoveBaseApps([this](const App::BaseAppInfo& app) REQUIRES(baseAppMutex_) {
    if (app.state_ != ProcessState::TERMINATED || app.IsRestartKept()) {
      return false;
    }
    LogInfo("PROCMGR : Process %s removed from the list of executedBaseApp_", app.appName_.c_str());
    DropChannel(app, master_);
    return true;
  });
}

}  // namespace ProcMgr
