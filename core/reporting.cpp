// Who hears of what: "iammgr" of every process there is, an owner of its general applications. A
// report is sent once; a failure is logged and the news is lost for that receiver.
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "core/app_lists.h"
#include "core/log.h"
#include "core/process_manager.h"

namespace ProcMgr {

using Message::AppStateInfo;

AppStateInfo MakeAppStateInfo(const App::AppInfo& app, ReportAppStateType state,
                              std::uint32_t eioFlag) {
  return {app.appName_, app.pid_, app.gid_, static_cast<std::uint32_t>(state), eioFlag};
}

// What a record that is asked about, rather than one that has changed, is said to be.
AppStateInfo MakeCurrentStateInfo(const App::AppInfo& app) {
  const ReportAppStateType state = app.state_ == ProcessState::RUNNING
                                       ? ReportAppStateType::RUNNING_NORMAL_START
                                       : app.reportState_;
  return MakeAppStateInfo(app, state, 0);
}

void ProcessManager::ReportBaseAppState(const App::BaseAppInfo& app, ReportAppStateType state,
                                        std::uint32_t eioFlag) {
  if (app.appName_ == kAccessService) {
    return;
  }
  ReportAppState(
      {MakeAppStateInfo(app, state, eioFlag)}, kAccessService,
      [name = app.appName_, number = static_cast<int>(state)](bool isSent) {
        if (isSent) {
          LogInfo("PROCMGR : report %s's state: %d to iammgr successfully", name.c_str(), number);
        } else {
          LogError("PROCMGR : report %s's state: %d to iammgr failed", name.c_str(), number);
        }
      });
}

void ProcessManager::ReportGeneralApps(const std::vector<AppChange>& changes) {
  if (changes.empty()) {
    return;
  }
  std::vector<AppStateInfo> all;
  all.reserve(changes.size());
  std::map<std::string, std::vector<AppStateInfo>> byOwner;
  for (const AppChange& change : changes) {
    all.push_back(change.info);
    byOwner[change.owner].push_back(change.info);
  }
  ReportAppState(all, kAccessService, [](bool isSent) {
    if (!isSent) {
      LogError("PROCMGR : CheckThread : report general apps' changes to IAM failed");
    }
  });
  for (const std::string& name : *BaseAppNames()) {
    const auto own = byOwner.find(name);
    if (name == kAccessService || own == byOwner.end()) {
      continue;
    }
    ReportAppState(own->second, name, [name](bool isSent) {
      if (!isSent) {
        LogError("PROCMGR : CheckThread : report general apps' changes to owner %s failed",
                 name.c_str());
      }
    });
  }
}

void ProcessManager::RegisterVfs() {
  const AppStateInfo self{kManagerName, getpid(), getgid(), 0, 0};
  ReportAppState({self}, kAccessService, [](bool isSent) {
    if (!isSent) {
      LogError("PROCMGR failed: RegisterVfs ReportAppState failed");
    }
  });
}

void ProcessManager::ReportPriorityApps() {
  const MutexLock lock(generalAppMutex_);
  std::vector<AppStateInfo> list;
  for (const auto& [name, app] : allGeneralAppMap_) {
    if (app->startupPriority_ != -1) {
      StepGeneralApp(*app, SteadyNow());
      list.push_back(MakeCurrentStateInfo(*app));
    }
  }
  (void)ReportAppState(list, kAccessService);  // The reconciliation repeats it.
}

void ProcessManager::ReportAllApps() {
  {
    const MutexLock lock(generalAppMutex_);
    std::vector<AppStateInfo> list;
    list.reserve(GeneralAppsInOrder().size());
    for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
      list.push_back(MakeCurrentStateInfo(*app));
    }
    (void)ReportAppState(list, kAccessService);  // It asks again if it misses something.
  }
  const MutexLock lock(baseAppMutex_);
  for (const App::BaseAppInfo& app : executedBaseApp_) {
    ReportBaseAppState(app,
                       app.state_ == ProcessState::TERMINATED
                           ? ReportAppStateType::TERMINATED_ABNORMAL_EXIT
                           : ReportAppStateType::RUNNING_NORMAL_START,
                       0);
  }
}

bool ProcessManager::ReportAppState(const std::vector<AppStateInfo>& list, const std::string& owner,
                                    Outcome outcome) {
  return master_.ReportAppState(list, owner, std::move(outcome));
}

bool ProcessManager::ReportAppDetailStatus(const std::map<std::string, int>& status,
                                           const std::string& owner) {
  return master_.ReportAppDetailStatus(status, owner);
}

void ProcessManager::UnRegServiceCallBack(const std::string& procName) {
  ProcMgrMaster::UnRegServiceCallBack(procName);
}

}  // namespace ProcMgr
