// The application lists of the process, their locks, and the look-ups in them.
//
// Lock order, of all locks of the manager: a thread that holds several takes them from the top
// down.
//
//   1. pmUploadMutex_
//   2. generalAppMutex_
//   3. baseAppMutex_
//   4. BringUpHandshake::stateMutex_, StartupCfg::cfgMapMutex_
//   5. the name table lock of ProcMgrMaster, the thread table lock of CoreAffinityMgr
//   Leaves, under which nothing else is taken but the log's lock: HeartMessages::heartMutex_,
//   Reporter::baseNamesMutex_, DelayedBinding::coreAffinityThreadMutex_ and delayCoreMutex_,
//   PlatformEvents::mutex_, sensorMutex_, the lock of Status::Memory.
#ifndef CORE_APP_LISTS_H
#define CORE_APP_LISTS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "base/mutex.h"
#include "base/steady_time.h"

namespace ProcMgr {

using GeneralAppPtr = std::shared_ptr<App::GeneralAppInfo>;

// A process that announced itself through the upload service.
struct PmUploadEntry {
  std::string appName;
  int fd = -1;
  std::uint32_t gid = 0;
  Status::AppId statusId = 0;
};

extern Mutex pmUploadMutex_;
extern Mutex generalAppMutex_ ACQUIRED_AFTER(pmUploadMutex_);
extern Mutex baseAppMutex_ ACQUIRED_AFTER(generalAppMutex_);

// Guards every record in executedBaseApp_ too, and generalAppMutex_ every general record, from a
// start, a restart or a termination on to the end of what it does for one application. Only the
// functions below change the list itself, or a pid in it: they keep its indexes.
extern std::vector<App::BaseAppInfo> executedBaseApp_ GUARDED_BY(baseAppMutex_);
extern std::map<pid_t, PmUploadEntry> pmUploadApps_ GUARDED_BY(pmUploadMutex_);

// The general records with a process, or with one that ended since the last pass, in the order of
// their entry.
[[nodiscard]] const std::vector<GeneralAppPtr>& GeneralAppsInOrder() REQUIRES(generalAppMutex_);

// The record of that name, or null. The pointer is good for as long as the lock is held.
[[nodiscard]] App::BaseAppInfo* FindBaseApp(const std::string& name) REQUIRES(baseAppMutex_);

// Whether "iammgr" has a record and has reported to be ready.
[[nodiscard]] bool IsAccessServiceReady() EXCLUDES(baseAppMutex_);

// The record with a process of that name, or null.
[[nodiscard]] GeneralAppPtr FindGeneralApp(const std::string& name) REQUIRES(generalAppMutex_);

// Of the records that are not TERMINATED, whose exit isn't on file and whose pid is `pid`, the one
// that was started first, if it was started before `limit`. Each lowers `limit` to the start of
// what it found; asked one after the other with one `limit` they find the oldest of both lists. The
// name, empty for none; and the index, the size of the list for none.
[[nodiscard]] std::string FindGeneralAppByPid(pid_t pid, SteadyTime& limit)
    REQUIRES(generalAppMutex_);
[[nodiscard]] std::size_t FindBaseAppByPid(pid_t pid, SteadyTime& limit) REQUIRES(baseAppMutex_);

// Enters the record of a started base application at the end of the list. The first of a name
// keeps it.
void EnterBaseApp(const App::BaseAppInfo& app) REQUIRES(baseAppMutex_);

// Starts the process of a base record that is in the list again, and files its pid. False: no
// process exists.
[[nodiscard]] bool RelaunchBaseApp(App::BaseAppInfo& app) REQUIRES(baseAppMutex_);

// Takes every base record out of which `isDone` says so, asked once each in their order.
void RemoveBaseApps(const std::function<bool(const App::BaseAppInfo&)>& isDone)
    REQUIRES(baseAppMutex_);

// Starts a general record's process, enters the record if it isn't there, and files its pid, so
// that an exit finds it without a walk. False: no process exists, nothing is changed.
[[nodiscard]] bool LaunchGeneralApp(const GeneralAppPtr& app) REQUIRES(generalAppMutex_);

// One step of a general record's state machine, the pid of a process that it may start filed.
void StepGeneralApp(App::GeneralAppInfo& app, SteadyTime now) REQUIRES(generalAppMutex_);

// Takes every TERMINATED general record out.
void RemoveTerminatedGeneralApps() REQUIRES(generalAppMutex_);

// Announces that a base record is about to be started and entered. Between its fork and its entry
// an exit can find no record; the reaper waits for the entry to end before it gives an exit up.
class BaseAppEntry {
 public:
  BaseAppEntry() EXCLUDES(baseAppMutex_);
  ~BaseAppEntry() EXCLUDES(baseAppMutex_);
  BaseAppEntry(const BaseAppEntry&) = delete;
  BaseAppEntry& operator=(const BaseAppEntry&) = delete;
};

// Has the check of base/may_wait.h watch over the locks of the lists. Before there is more than one
// thread.
void ForbidWaitsUnderListLocks();

// Waits until no entry is under way. Reaper.
void WaitForBaseAppEntries() REQUIRES(baseAppMutex_);

}  // namespace ProcMgr

#endif  // CORE_APP_LISTS_H
