#include "core/orderly_stop.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "base/lost_time.h"
#include "base/sleep.h"
#include "base/steady_time.h"
#include "core/log.h"

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
  LostTime lostTime;
  while (std::erase_if(leavers, hasLeft), !leavers.empty()) {
    SleepNs(kLookNs);
    const SteadyTime::duration lost = lostTime.Look();
    for (Leaver& leaver : leavers) {
      leaver.deadline += lost;
    }
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

void StopGeneralApps(const StopRequest& stop) EXCLUDES(generalAppMutex_) {
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
  AwaitAll(leavers, [&stop](Leaver& leaver) {
    const MutexLock lock(generalAppMutex_);
    return HasLeft(leaver, FindGeneralApp(leaver.name).get(), stop.IsUrgent());
  });
}

// Ends the services that no other one depends on. False if there was none. `asked` are those that
// have had their turn.
bool StopBaseLevel(std::set<pid_t>& asked, const StopRequest& stop, BringUpHandshake& handshake)
    EXCLUDES(baseAppMutex_) {
  std::vector<Leaver> leavers;
  std::string names;
  {
    const MutexLock lock(baseAppMutex_);
    for (App::BaseAppInfo* const app : TopLevel(asked)) {
      leavers.push_back(MakeLeaver(*app));
      names += app->appName_ + ",";
      asked.insert(app->pid_);
      app->EndForGood();
      handshake.TakeReport(*app, ProcessState::TERMINATING);
    }
  }
  if (leavers.empty()) {
    return false;
  }
  LogInfo("PROCMGR : orderly stop: asked base services to end, appList=%s", names.c_str());
  AwaitAll(leavers, [&stop](Leaver& leaver) {
    const MutexLock lock(baseAppMutex_);
    return HasLeft(leaver, FindBaseApp(leaver.name), stop.IsUrgent());
  });
  return true;
}

}  // namespace

void AskForStop(StopRequest& stop, BringUpHandshake& handshake) {
  LogWarning("PROCMGR : orderly stop asked for%s", stop.IsAsked() ? " again" : "");
  stop.Ask();
  handshake.GiveUp();
}

void StopApplications(const StopRequest& stop, BringUpHandshake& handshake) {
  LogInfo("PROCMGR : orderly stop begin");
  StopGeneralApps(stop);
  std::set<pid_t> asked;
  while (StopBaseLevel(asked, stop, handshake)) {
  }
  LogInfo("PROCMGR : orderly stop end");
}

}  // namespace ProcMgr
