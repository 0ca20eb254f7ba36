// What an agent can ask for: start, restart, terminate and query general applications.
//
// Each request works through its list with generalAppMutex_ held for one entry at a time. What can
// be said at once is collected in a list of changes and reported when the list is through, outside
// the lock; what takes time is reported by the check pass.
#include "base/boot_trace.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "core/status_feed.h"
#include "host/integrity_protect.h"

namespace ProcMgr {
namespace {

using Status::Memory;

const std::string& NameOf(const std::string& name) {
  return name;
}

template <typename Info>
const std::string& NameOf(const Info& info) {
  return info.appName;
}

template <typename Entry>
std::string JoinNames(const std::vector<Entry>& list) {
  std::string text;
  for (const Entry& entry : list) {
    text.append(NameOf(entry)).append(",");
  }
  return text;
}

// Answers for an application that isn't known; enters no map.
App::GeneralAppInfo Placeholder(const std::string& name) {
  App::GeneralAppInfo app;
  app.appName_ = name;
  return app;
}

void AddChange(const App::GeneralAppInfo& app, std::vector<AppChange>& changes,
               ReportAppStateType state, const std::string& owner) {
  changes.push_back({owner, MakeAppStateInfo(app, state, 0)});
}

// Answers itself for an application that can't be started now.
bool IsStartable(const App::GeneralAppInfo& app, const std::string& sender,
                 std::vector<AppChange>& changes) REQUIRES(generalAppMutex_) {
  if (FindGeneralApp(app.appName_) == nullptr) {
    return true;
  }
  const std::string state = GetProcessStateStr(app.state_);
  switch (app.state_) {
    case ProcessState::RUNNING:
      AddChange(app, changes, ReportAppStateType::RUNNING_NORMAL_START, sender);
      LogWarning("PROCMGR : StartApp : appName=%s, pid=%d is already running", app.appName_.c_str(),
                 app.pid_);
      return false;
    case ProcessState::TERMINATED:
      LogWarning(
          "PROCMGR : appName=%s, pid=%d, state=%s is in terminated state, but not remove from "
          "generalAppMap yet, so go on",
          app.appName_.c_str(), app.pid_, state.c_str());
      return true;
    default:
      AddChange(app, changes, ReportAppStateType::INVALID_INTERMEDIATE_STATE, sender);
      LogError("PROCMGR : StartApp : appName=%s, pid=%d, state=%s is in invalid state",
               app.appName_.c_str(), app.pid_, state.c_str());
      return false;
  }
}

// Writes the request's parameters into the record. Answers itself for an application that they
// don't fit.
template <typename Info>
bool TakeParams(App::GeneralAppInfo& app, const Info& info, const std::string& sender,
                std::vector<AppChange>& changes) REQUIRES(generalAppMutex_) {
  const bool isParamValid = app.UpdateDynamicParam(info.argv, info.dynamicPara);
  MentionGeneralApp(app);
  if (!isParamValid) {
    Memory::Instance().RefuseRequest(app.statusId_, Status::CauseKind::kArgument,
                                     "the parameters of " + sender + " don't fit the manifest");
    AddChange(app, changes, ReportAppStateType::TERMINATED_ABNORMAL_EXIT, sender);
  }
  return isParamValid;
}

// The check pass starts the new process when the old one has gone.
void EndForRestart(App::GeneralAppInfo& app, const std::string& sender) REQUIRES(generalAppMutex_) {
  app.savedForceTerm_ = app.isForceTerm_;
  app.isForceTerm_ = true;
  if (!app.TermProcess()) {
    LogError("PROCMGR : RestartApp failed: TermProcess failed : appName=%s pid=%d, state=%s",
             app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
    return;
  }
  app.state_ = ProcessState::RESTARTING;
  app.isRestartStarted_ = 0;
  Memory::Instance().NoteRestarting(app.statusId_, sender);
  LogInfo(
      "PROCMGR : RestartApp set RESTARTING state finished(when app was running "
      "before):appName=%s, pid=%d, state=%s",
      app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
}

// True if it has dealt with the application: one without a live process is started at once.
bool RestartStoppedApp(const GeneralAppPtr& app, std::vector<AppChange>& changes,
                       const std::string& owner) REQUIRES(generalAppMutex_) {
  const bool isRemoved = FindGeneralApp(app->appName_) == nullptr;
  const bool isTerminated = app->state_ == ProcessState::TERMINATED;
  if (!isTerminated && !isRemoved) {
    return false;
  }
  Memory::Instance().NoteRestarting(app->statusId_, owner);
  if (!LaunchGeneralApp(app)) {
    AddChange(*app, changes, ReportAppStateType::TERMINATED_ABNORMAL_EXIT, owner);
    LogError("PROCMGR : RestartApp failed: StartProcess failed appName=%s, pid=%d",
             app->appName_.c_str(), app->pid_);
    UpdateFaultSensor(app->appName_, app->nodeType_, Fault::kOn);
    return true;
  }
  app->state_ = ProcessState::RESTARTING;
  app->isRestartStarted_ = 1;
  LogInfo("PROCMGR : RestartApp=%s, pid=%d success, isRemoved=%d, isTermminated=%d",
          app->appName_.c_str(), app->pid_, isRemoved, isTerminated);
  return true;
}

bool IsAlreadyTerminated(const App::GeneralAppInfo& app, std::vector<AppChange>& changes,
                         const std::string& owner) REQUIRES(generalAppMutex_) {
  const bool isListed = FindGeneralApp(app.appName_) != nullptr;
  if (isListed && app.state_ != ProcessState::TERMINATED) {
    return false;
  }
  if (isListed) {
    LogInfo("PROCMGR : TermGeneralApp:app=%s is already terminated but not removed",
            app.appName_.c_str());
  } else {
    LogInfo("PROCMGR : TermGeneralApp:app=%s is already terminated and removed",
            app.appName_.c_str());
  }
  AddChange(app, changes, ReportAppStateType::TERMINATED_NORMAL_EXIT, owner);
  return true;
}

void RestartOneApp(GeneralAppTable& table, const Message::RestartAppInfo& info,
                   const std::string& sender, std::vector<AppChange>& changes)
    REQUIRES(generalAppMutex_) {
  const char* const name = info.appName.c_str();
  const GeneralAppPtr app = table.GetGeneralApp(info.appName, sender);
  if (app == nullptr) {
    LogError("PROCMGR : RestartApp failed: not find app=%s", name);
    AddChange(Placeholder(info.appName), changes, ReportAppStateType::TERMINATED_ABNORMAL_EXIT,
              sender);
    return;
  }
  if (!TakeParams(*app, info, sender, changes)) {
    LogError("PROCMGR : RestartApp failed : appName=%s, dynamic para invalid", name);
    return;
  }
  app->SetTermBeginTime();
  table.ResolveCoreAffinityAll(*app);
  if (RestartStoppedApp(app, changes, sender)) {
    return;
  }
  if (app->state_ != ProcessState::RUNNING) {
    AddChange(*app, changes, ReportAppStateType::INVALID_INTERMEDIATE_STATE, sender);
    LogError(
        "PROCMGR : RestartApp failed: StartProcess : appName=%s, pid=%d, state=%s is invalid "
        "intermediate state",
        name, app->pid_, GetProcessStateStr(app->state_).c_str());
    return;
  }
  EndForRestart(*app, sender);
}

void TermOneApp(GeneralAppTable& table, const std::string& name, const std::string& sender,
                std::vector<AppChange>& changes) REQUIRES(generalAppMutex_) {
  const GeneralAppPtr app = table.GetGeneralApp(name, sender);
  if (app == nullptr || app->state_ == ProcessState::INITSTATE) {
    LogError("PROCMGR : termApp failed: not find app=%s", name.c_str());
    AddChange(Placeholder(name), changes, ReportAppStateType::TERMINATED_NORMAL_EXIT, sender);
    return;
  }
  if (IsAlreadyTerminated(*app, changes, sender)) {
    return;
  }
  if (app->state_ != ProcessState::RUNNING) {
    AddChange(*app, changes, ReportAppStateType::INVALID_INTERMEDIATE_STATE, sender);
    LogError(
        "PROCMGR : TermGeneralApp failed: appName=%s, pid=%d, state=%s is invalid intermediate "
        "state",
        name.c_str(), app->pid_, GetProcessStateStr(app->state_).c_str());
    return;
  }
  app->SetTermBeginTime();
  if (app->TermProcess()) {
    app->state_ = ProcessState::TERMINATING;
    Memory::Instance().NoteStopping(app->statusId_, sender);
  } else {
    LogError("PROCMGR : TermGeneralApp failed: TermProcess failed: appName=%s, pid=%d, state=%s)",
             name.c_str(), app->pid_, GetProcessStateStr(app->state_).c_str());
  }
}

}  // namespace

bool ProcessManager::StartWithDigest(const std::string& name,
                                     const std::map<int, std::vector<std::string>>& params,
                                     const std::function<void()>& start) {
  std::string awaited;
  do {
    if (!awaited.empty()) {
      IntegrityProtect::Instance().WorkOut(awaited);
    }
    const MutexLock lock(generalAppMutex_);
    if (stop_.IsAsked()) {
      return false;
    }
    awaited = generalApps_.ProgramToCheck(name, params);
    if (awaited.empty()) {
      start();
    }
  } while (!awaited.empty());
  return true;
}

void ProcessManager::StartApp(const std::vector<Message::StartAppInfo>& list,
                              const std::string& sender) {
  LogInfo("%s PM revice START_APP msg from %s, appList=%s", BootStrace(kBootTraceTag).c_str(),
          sender.c_str(), JoinNames(list).c_str());
  std::vector<AppChange> changes;
  const LogBatch batch;
  for (const Message::StartAppInfo& info : list) {
    bool isKnown = true;
    const auto start = [&]() REQUIRES(generalAppMutex_) {
      isKnown = StartOneApp(info, sender, changes);
    };
    if (!StartWithDigest(info.appName, info.dynamicPara, start) || !isKnown) {
      return;
    }
  }
  reporter_.ReportGeneralApps(changes);
}

// False ends the whole request: the application isn't known.
bool ProcessManager::StartOneApp(const Message::StartAppInfo& info, const std::string& sender,
                                 std::vector<AppChange>& changes) {
  const char* const name = info.appName.c_str();
  const GeneralAppPtr app = generalApps_.GetGeneralApp(info.appName, sender);
  if (app == nullptr) {
    LogError("PROCMGR : StartApp: appName=%s is null", name);
    return false;
  }
  if (!TakeParams(*app, info, sender, changes)) {
    LogError("PROCMGR : StartApp failed : appName=%s, dynamic para invalid", name);
    return true;
  }
  if (app->isPriorityPending_) {
    HandlePriorityApps(app);
    return true;
  }
  if (!IsStartable(*app, sender, changes)) {
    return true;
  }
  generalApps_.ResolveCoreAffinityAll(*app);
  if (!LaunchGeneralApp(app)) {
    AddChange(*app, changes, ReportAppStateType::TERMINATED_ABNORMAL_EXIT, sender);
    LogError("PROCMGR : StartApp : StartProcess failed : appName=%s, pid=%d, state=%s, %s", name,
             app->pid_, GetProcessStateStr(app->state_).c_str(), BootStrace(kBootTraceTag).c_str());
    UpdateFaultSensor(info.appName, app->nodeType_, Fault::kOn);
    return true;
  }
  app->state_ = ProcessState::STARTING;
  return true;
}

void ProcessManager::RestartApp(const std::vector<Message::RestartAppInfo>& list,
                                const std::string& sender) {
  LogInfo("%s PM revice RESTART_APP msg from %s, appList=%s", BootStrace(kBootTraceTag).c_str(),
          sender.c_str(), JoinNames(list).c_str());
  std::vector<AppChange> changes;
  for (const Message::RestartAppInfo& info : list) {
    const auto restart = [&]() REQUIRES(generalAppMutex_) {
      RestartOneApp(generalApps_, info, sender, changes);
    };
    if (!StartWithDigest(info.appName, info.dynamicPara, restart)) {
      return;
    }
  }
  reporter_.ReportGeneralApps(changes);
}

void ProcessManager::TermGeneralApp(const std::vector<Message::TermAppInfo>& list,
                                    const std::string& sender) {
  LogInfo("%s PM revice TERM_APP msg from %s, appList=%s", BootStrace(kBootTraceTag).c_str(),
          sender.c_str(), JoinNames(list).c_str());
  std::vector<AppChange> changes;
  for (const Message::TermAppInfo& info : list) {
    const MutexLock lock(generalAppMutex_);
    TermOneApp(generalApps_, info.appName, sender, changes);
  }
  reporter_.ReportGeneralApps(changes);
}

void ProcessManager::QueryAppState(const std::vector<std::string>& names,
                                   const std::string& sender) {
  LogInfo("%s PM revice QUERY_APP_STATE msg from %s, appList=%s", BootStrace(kBootTraceTag).c_str(),
          sender.c_str(), JoinNames(names).c_str());
  {
    const MutexLock lock(generalAppMutex_);
    std::map<std::string, int> status;
    for (const std::string& name : names) {
      const GeneralAppPtr app = FindGeneralApp(name);
      status[name] = app == nullptr ? 1 : app->ProbeProcess();
    }
    (void)reporter_.ReportAppDetailStatus(status, sender);  // The requester may ask again.
  }
  LogInfo("%s PM finish QUERY_APP_STATE request from %s", BootStrace(kBootTraceTag).c_str(),
          sender.c_str());
}

}  // namespace ProcMgr
