#include "core/app_lists.h"

#include <algorithm>
#include <unordered_map>

#include "core/log.h"

namespace ProcMgr {

Mutex pmUploadMutex_;
Mutex generalAppMutex_;
Mutex baseAppMutex_;

std::vector<App::BaseAppInfo> executedBaseApp_;
std::map<pid_t, PmUploadEntry> pmUploadApps_;

namespace {

// The general records with a process by their names, and again in the order of their entry: what is
// done to all of them at every pass walks the second, which is cheaper by far than a chain of
// nodes.
std::unordered_map<std::string, GeneralAppPtr> generalAppMap_ GUARDED_BY(generalAppMutex_);
std::vector<GeneralAppPtr> generalAppsInOrder_ GUARDED_BY(generalAppMutex_);

// The pids of these records; more than one name where a number was used again.
std::unordered_multimap<pid_t, std::string> generalAppPids_ GUARDED_BY(generalAppMutex_);

unsigned baseEntriesOpen_ GUARDED_BY(baseAppMutex_) = 0;
CondVar baseEntryCond_;

void DropPid(pid_t pid, const std::string& name) REQUIRES(generalAppMutex_) {
  const auto [begin, end] = generalAppPids_.equal_range(pid);
  const auto found =
      std::find_if(begin, end, [&name](const auto& entry) { return entry.second == name; });
  if (found != end) {
    generalAppPids_.erase(found);
  }
}

void FilePid(const App::GeneralAppInfo& app, pid_t oldPid) REQUIRES(generalAppMutex_) {
  if (app.pid_ != oldPid) {
    DropPid(oldPid, app.appName_);
    generalAppPids_.emplace(app.pid_, app.appName_);
  }
}

bool IsCandidate(const App::AppInfo& app, pid_t pid, SteadyTime limit) {
  return app.state_ != ProcessState::TERMINATED && !app.isExited_ && app.pid_ == pid &&
         app.startTime_ < limit;
}

}  // namespace

const std::vector<GeneralAppPtr>& GeneralAppsInOrder() {
  return generalAppsInOrder_;
}

App::BaseAppInfo* FindBaseApp(const std::string& name) {
  const auto found =
      std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                   [&name](const App::BaseAppInfo& app) { return app.appName_ == name; });
  return found == executedBaseApp_.end() ? nullptr : &*found;
}

GeneralAppPtr FindGeneralApp(const std::string& name) {
  const auto found = generalAppMap_.find(name);
  return found == generalAppMap_.end() ? nullptr : found->second;
}

std::string FindGeneralAppByPid(pid_t pid, SteadyTime& limit) {
  std::string candidate;
  const auto [begin, end] = generalAppPids_.equal_range(pid);
  for (auto entry = begin; entry != end; ++entry) {
    const GeneralAppPtr app = FindGeneralApp(entry->second);
    if (app != nullptr && IsCandidate(*app, pid, limit)) {
      limit = app->startTime_;
      candidate = entry->second;
    }
  }
  return candidate;
}

std::size_t FindBaseAppByPid(pid_t pid, SteadyTime& limit) {
  std::size_t candidate = executedBaseApp_.size();
  for (std::size_t i = 0; i < executedBaseApp_.size(); ++i) {
    if (IsCandidate(executedBaseApp_[i], pid, limit)) {
      limit = executedBaseApp_[i].startTime_;
      candidate = i;
    }
  }
  return candidate;
}

bool LaunchGeneralApp(const GeneralAppPtr& app) {
  const pid_t oldPid = app->pid_;
  if (!app->StartProcess()) {
    return false;
  }
  if (generalAppMap_.emplace(app->appName_, app).second) {
    generalAppsInOrder_.push_back(app);
    generalAppPids_.emplace(app->pid_, app->appName_);
  } else {
    FilePid(*app, oldPid);
  }
  return true;
}

void StepGeneralApp(App::GeneralAppInfo& app, SteadyTime now) {
  const pid_t oldPid = app.pid_;
  app.state_ = app.CheckStateAt(now);
  FilePid(app, oldPid);
}

void RemoveTerminatedGeneralApps() {
  std::erase_if(generalAppsInOrder_, [](const GeneralAppPtr& app) REQUIRES(generalAppMutex_) {
    if (app->state_ != ProcessState::TERMINATED) {
      return false;
    }
    LogInfo("PROCMGR : Process %s removed from the list of generalAppMap_", app->appName_.c_str());
    DropPid(app->pid_, app->appName_);
    generalAppMap_.erase(app->appName_);
    return true;
  });
}

BaseAppEntry::BaseAppEntry() {
  const MutexLock lock(baseAppMutex_);
  ++baseEntriesOpen_;
}

BaseAppEntry::~BaseAppEntry() {
  const MutexLock lock(baseAppMutex_);
  --baseEntriesOpen_;
  baseEntryCond_.NotifyAll();
}

void WaitForBaseAppEntries() {
  while (baseEntriesOpen_ != 0) {
    baseEntryCond_.Wait(baseAppMutex_);
  }
}

}  // namespace ProcMgr
