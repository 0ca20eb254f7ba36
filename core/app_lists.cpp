#include "core/app_lists.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <utility>

#include "base/may_wait.h"
#include "base/names.h"
#include "core/log.h"
#include "core/pass_bell.h"
#include "status/memory.h"

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

// Where in executedBaseApp_ a name and a pid stand; several places where a number was used again.
std::unordered_map<std::string, std::size_t> baseAppNames_ GUARDED_BY(baseAppMutex_);
std::unordered_multimap<pid_t, std::size_t> baseAppPids_ GUARDED_BY(baseAppMutex_);

unsigned baseEntriesOpen_ GUARDED_BY(baseAppMutex_) = 0;
CondVar baseEntryCond_;

template <typename Owner>
using PidIndex = std::unordered_multimap<pid_t, Owner>;

// Takes what `pid` stands for out of an index of pids. Yields it; empty if it isn't there.
template <typename Owner>
typename PidIndex<Owner>::node_type Take(PidIndex<Owner>& pids, pid_t pid, const Owner& owner) {
  const auto [begin, end] = pids.equal_range(pid);
  const auto found =
      std::find_if(begin, end, [&owner](const auto& entry) { return entry.second == owner; });
  return found == end ? typename PidIndex<Owner>::node_type() : pids.extract(found);
}

// While it lives a record's process may be replaced: at the end the index has the pid that the
// record has then. Needs no memory for that, so a process that has been started is found by its
// exit whatever else has failed.
template <typename Owner>
class PidFiling {
 public:
  PidFiling(PidIndex<Owner>& pids, const Owner& owner, const pid_t& pid)
      : pids_(pids), pid_(pid), entry_(Take(pids, pid, owner)) {}
  ~PidFiling() {
    if (!entry_.empty()) {
      entry_.key() = pid_;
      pids_.insert(std::move(entry_));
    }
  }
  PidFiling(const PidFiling&) = delete;
  PidFiling& operator=(const PidFiling&) = delete;

 private:
  PidIndex<Owner>& pids_;
  const pid_t& pid_;
  typename PidIndex<Owner>::node_type entry_;
};

// A general record's way into the list, unless it is there. It is entered before its process is
// started, for that needs memory, and taken out again if there is no process in the end. A process
// whose launch was broken off is starting: it is nobody's turn to say so any more.
class GeneralAppEntry {
 public:
  explicit GeneralAppEntry(const GeneralAppPtr& app) REQUIRES(generalAppMutex_)
      : app_(app), isNew_(!generalAppMap_.contains(app->appName_)), before_(app->startTime_) {}
  ~GeneralAppEntry() REQUIRES(generalAppMutex_) {
    if (app_->startTime_ != before_) {
      app_->state_ = isWhole_ ? app_->state_ : ProcessState::STARTING;
    } else if (isNew_) {
      (void)Take(generalAppPids_, app_->pid_, app_->appName_);
      std::erase(generalAppsInOrder_, app_);
      generalAppMap_.erase(app_->appName_);
    }
  }
  GeneralAppEntry(const GeneralAppEntry&) = delete;
  GeneralAppEntry& operator=(const GeneralAppEntry&) = delete;

  void Enter() REQUIRES(generalAppMutex_) {
    if (isNew_) {
      generalAppMap_.emplace(app_->appName_, app_);
      generalAppsInOrder_.push_back(app_);
      generalAppPids_.emplace(app_->pid_, app_->appName_);
    }
  }
  void EndLaunch() { isWhole_ = true; }

 private:
  const GeneralAppPtr app_;
  const bool isNew_;
  const SteadyTime before_;
  bool isWhole_ = false;
};

void IndexBaseApp(std::size_t index) REQUIRES(baseAppMutex_) {
  baseAppNames_.emplace(executedBaseApp_[index].appName_, index);
  baseAppPids_.emplace(executedBaseApp_[index].pid_, index);
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
  const auto found = baseAppNames_.find(name);
  return found == baseAppNames_.end() ? nullptr : &executedBaseApp_[found->second];
}

bool IsAccessServiceReady() {
  const MutexLock lock(baseAppMutex_);
  const App::BaseAppInfo* const app = FindBaseApp(kAccessService);
  return app != nullptr && app->isReady_;
}

void EnterBaseApp(const App::BaseAppInfo& app) {
  executedBaseApp_.push_back(app);
  IndexBaseApp(executedBaseApp_.size() - 1);
  passBell.Ring();
}

bool RelaunchBaseApp(App::BaseAppInfo& app) {
  const auto index = static_cast<std::size_t>(&app - executedBaseApp_.data());
  {
    const PidFiling filing(baseAppPids_, index, app.pid_);
    if (!app.StartProcess()) {
      return false;
    }
  }
  Status::Memory::Instance().NoteStarted(app.statusId_, app.pid_);
  passBell.Ring();
  return true;
}

void RemoveBaseApps(const std::function<bool(const App::BaseAppInfo&)>& isDone) {
  if (std::erase_if(executedBaseApp_, isDone) == 0) {
    return;
  }
  // The records behind a removed one have moved.
  baseAppNames_.clear();
  baseAppPids_.clear();
  for (std::size_t i = 0; i < executedBaseApp_.size(); ++i) {
    IndexBaseApp(i);
  }
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
  const auto [begin, end] = baseAppPids_.equal_range(pid);
  for (auto entry = begin; entry != end; ++entry) {
    const App::BaseAppInfo& app = executedBaseApp_[entry->second];
    if (IsCandidate(app, pid, limit)) {
      limit = app.startTime_;
      candidate = entry->second;
    }
  }
  return candidate;
}

bool LaunchGeneralApp(const GeneralAppPtr& app) {
  GeneralAppEntry entry(app);
  entry.Enter();
  {
    const PidFiling filing(generalAppPids_, app->appName_, app->pid_);
    if (!app->StartProcess()) {
      return false;
    }
  }
  Status::Memory::Instance().NoteStarted(app->statusId_, app->pid_);
  passBell.Ring();
  entry.EndLaunch();
  return true;
}

void StepGeneralApp(App::GeneralAppInfo& app, SteadyTime now) {
  const pid_t oldPid = app.pid_;
  const bool isOldProcess = app.isRestartStarted_ == 0;
  const ProcessState before = app.state_;
  {
    std::optional<PidFiling<std::string>> filing;
    if (before == ProcessState::RESTARTING) {
      filing.emplace(generalAppPids_, app.appName_, app.pid_);
    }
    app.state_ = app.CheckStateAt(now);
  }
  if (app.pid_ != oldPid) {
    passBell.Ring();
  }
  if (app.state_ == ProcessState::RESTARTING && isOldProcess && app.isRestartStarted_ != 0) {
    Status::Memory::Instance().NoteStarted(app.statusId_, app.pid_);
  }
  if (app.state_ == ProcessState::RUNNING && before != ProcessState::RUNNING) {
    Status::Memory::Instance().NoteRunning(app.statusId_);
  }
}

void RemoveTerminatedGeneralApps() {
  std::erase_if(generalAppsInOrder_, [](const GeneralAppPtr& app) REQUIRES(generalAppMutex_) {
    if (app->state_ != ProcessState::TERMINATED) {
      return false;
    }
    LogInfo("PROCMGR : Process %s removed from the list of generalAppMap_", app->appName_.c_str());
    (void)Take(generalAppPids_, app->pid_, app->appName_);
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

void ForbidWaitsUnderListLocks() {
  NeverWaitUnder(pmUploadMutex_, "pmUploadMutex_");
  NeverWaitUnder(generalAppMutex_, "generalAppMutex_");
  NeverWaitUnder(baseAppMutex_, "baseAppMutex_");
}

void WaitForBaseAppEntries() {
  while (baseEntriesOpen_ != 0) {
    baseEntryCond_.Wait(baseAppMutex_);
  }
}

}  // namespace ProcMgr
