// The orderly stop: what the manager has started ends in the reverse order of the boot.
//
// Nothing is started any more from the request on. The general applications are asked to end all at
// once; then the base services, level by level: a service before what it depends on. Who hasn't
// ended when its time is up is killed. The reaper and the check pass go on meanwhile, so every end
// is filed, told and reported as ever.
#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "base/sleep.h"
#include "base/steady_time.h"
#include "core/app_lists.h"
#include "core/log.h"
#include "core/process_manager.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kLookNs = 5'000'000;
// A killed process that isn't gone by then waits in the kernel for something that won't come.
constexpr std::chrono::seconds kKillLimit{2};

// A process that has been asked to end.
struct Leaver {
  std::string name;
  pid_t pid = 0;
  SteadyTime deadline;
  bool isKilled = false;
};

Leaver MakeLeaver(const App::AppInfo& app) {
  return {app.appName_, app.pid_, SteadyNow() + std::chrono::milliseconds(app.termTimeOut_)};
}

bool HasProcess(const App::AppInfo& app) {
  return app.pid_ > 0 && app.state_ != ProcessState::INITSTATE &&
         app.state_ != ProcessState::TERMINATED;
}

// Kills a leaver whose time is up. True if it is gone, with its end taken on by the check pass, or
// given up.
bool HasLeft(Leaver& leaver, const App::AppInfo* app, bool isUrgent) {
  if (app == nullptr || app->pid_ != leaver.pid || !HasProcess(*app)) {
    return true;
  }
  const SteadyTime now = SteadyNow();
  if (leaver.isKilled) {
    if (now < leaver.deadline) {
      return false;
    }
    LogWarning("PROCMGR : orderly stop: app=%s, pid=%d is still there after SIGKILL",
               leaver.name.c_str(), leaver.pid);
    return true;
  }
  if (now >= leaver.deadline || isUrgent) {
    LogWarning("PROCMGR : orderly stop: app=%s, pid=%d has not ended, so SIGKILL",
               leaver.name.c_str(), leaver.pid);
    app->KillProcess();
    leaver.isKilled = true;
    leaver.deadline = now + kKillLimit;
  }
  return false;
}

template <typename Look>
void AwaitAll(std::vector<Leaver>& leavers, Look hasLeft) {
  while (std::erase_if(leavers, hasLeft), !leavers.empty()) {
    SleepNs(kLookNs);
  }
}

// Of the services that haven't been asked, those that no other one depends on, latest start first.
// Where all depend on one another, all.
std::vector<App::BaseAppInfo*> TopLevel(const std::set<pid_t>& asked) REQUIRES(baseAppMutex_) {
  std::vector<App::BaseAppInfo*> running;
  std::set<std::string> needed;
  for (App::BaseAppInfo& app : executedBaseApp_) {
    if (HasProcess(app) && !asked.contains(app.pid_)) {
      running.push_back(&app);
      std::copy_if(app.dependList_.begin(), app.dependList_.end(),
                   std::inserter(needed, needed.end()),
                   [&app](const std::string& name) { return name != app.appName_; });
    }
  }
  std::reverse(running.begin(), running.end());
  std::vector<App::BaseAppInfo*> top;
  std::copy_if(running.begin(), running.end(), std::back_inserter(top),
               [&needed](const auto* app) { return !needed.contains(app->appName_); });
  return top.empty() ? running : top;
}

}  // namespace

void ProcessManager::AskForStop() {
  LogWarning("PROCMGR : orderly stop asked for%s", stop_.IsAsked() ? " again" : "");
  stop_.Ask();
  handshake_.GiveUp();
}

void ProcessManager::StopApplications() {
  LogInfo("PROCMGR : orderly stop begin");
  StopGeneralApps();
  std::set<pid_t> asked;
  while (StopBaseLevel(asked)) {
  }
  LogInfo("PROCMGR : orderly stop end");
}

void ProcessManager::StopGeneralApps() {
  std::vector<Leaver> leavers;
  {
    const MutexLock lock(generalAppMutex_);
    for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
      if (HasProcess(*app)) {
        leavers.push_back(MakeLeaver(*app));
        app->EndForGood();
      }
    }
  }
  LogInfo("PROCMGR : orderly stop: asked general applications to end, count=%zu", leavers.size());
  AwaitAll(leavers, [this](Leaver& leaver) {
    const MutexLock lock(generalAppMutex_);
    return HasLeft(leaver, FindGeneralApp(leaver.name).get(), stop_.IsUrgent());
  });
}

bool ProcessManager::StopBaseLevel(std::set<pid_t>& asked) {
  std::vector<Leaver> leavers;
  std::string names;
  {
    const MutexLock lock(baseAppMutex_);
    for (App::BaseAppInfo* const app : TopLevel(asked)) {
      leavers.push_back(MakeLeaver(*app));
      names += app->appName_ + ",";
      asked.insert(app->pid_);
      app->EndForGood();
      handshake_.TakeReport(*app, ProcessState::TERMINATING);
    }
  }
  if (leavers.empty()) {
    return false;
  }
  LogInfo("PROCMGR : orderly stop: asked base services to end, appList=%s", names.c_str());
  AwaitAll(leavers, [this](Leaver& leaver) {
    const MutexLock lock(baseAppMutex_);
    return HasLeft(leaver, FindBaseApp(leaver.name), stop_.IsUrgent());
  });
  return true;
}

}  // namespace ProcMgr
