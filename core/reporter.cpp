#include "core/reporter.h"

#include <unistd.h>

#include <utility>

#include "base/names.h"
#include "core/log.h"

namespace ProcMgr {

using Message::AppStateInfo;

AppStateInfo MakeAppStateInfo(const App::AppInfo& app, ReportAppStateType state,
                              std::uint32_t eioFlag) {
  return {app.appName_, app.pid_, app.gid_, static_cast<std::uint32_t>(state), eioFlag};
}

AppStateInfo MakeCurrentStateInfo(const App::AppInfo& app) {
  const ReportAppStateType state = app.state_ == ProcessState::RUNNING
                                       ? ReportAppStateType::RUNNING_NORMAL_START
                                       : app.reportState_;
  return MakeAppStateInfo(app, state, 0);
}

void Reporter::PublishBaseAppNames(std::vector<std::string> names) {
  auto published = std::make_shared<const std::vector<std::string>>(std::move(names));
  const MutexLock lock(baseNamesMutex_);
  baseAppNames_ = std::move(published);
}

Reporter::Names Reporter::BaseAppNames() {
  const MutexLock lock(baseNamesMutex_);
  return baseAppNames_;
}

void Reporter::ReportBaseAppState(const App::BaseAppInfo& app, ReportAppStateType state,
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

void Reporter::ReportGeneralApps(const std::vector<AppChange>& changes) {
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
  const Names names = BaseAppNames();
  for (const std::string& name : *names) {
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

void Reporter::RegisterVfs() {
  const AppStateInfo self{kManagerName, getpid(), getgid(), 0, 0};
  ReportAppState({self}, kAccessService, [](bool isSent) {
    if (!isSent) {
      LogError("PROCMGR failed: RegisterVfs ReportAppState failed");
    }
  });
}

void Reporter::ReportAllApps() {
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

bool Reporter::ReportAppState(const std::vector<AppStateInfo>& list, const std::string& owner,
                              Outcome outcome) {
  return master_.ReportAppState(list, owner, std::move(outcome));
}

bool Reporter::ReportAppDetailStatus(const std::map<std::string, int>& status,
                                     const std::string& owner) {
  return master_.ReportAppDetailStatus(status, owner);
}

}  // namespace ProcMgr
