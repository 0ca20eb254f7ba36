// The record of one application: what to run, what it is doing now, what has to be told about it.
//
// Two kinds exist. A base application is a service of the boot: made once from the base-service
// file, kept by value in executedBaseApp_ and restarted by its policy. A general application is
// started on request of an owner, shared between generalAppMap_ and allGeneralAppMap_, and
// restarted on request only.
//
// The life of a record
// --------------------
// The state machine is a poll. The reaper only drops an exit status into the record
// (SetExitStatus); the check thread calls CheckState on every record at every pass, stores the
// result in state_ and reads from reportState_ what there is to report. Each call moves a record by
// one step at most.
//
//   INITSTATE    no process yet.
//     -> STARTING     StartProcess succeeded (base: it writes the state itself; general: StartApp).
//   STARTING     forked, not seen alive yet; or a reporting base application that hasn't reported.
//     -> RUNNING      seen alive by a pass: RUNNING_NORMAL_START. A reporting base application gets
//                     there by its own report alone.
//     -> TERMINATED   exited: classified (ClassifyExit).
//   RUNNING
//     -> TERMINATING  general: TermGeneralApp sent SIGTERM. Base: the service says that it goes.
//     -> RESTARTING   general: RestartApp sent SIGTERM.
//     -> TERMINATED   exited: classified.
//   TERMINATING  asked to end. Base: no time-out.
//     -> TERMINATED   exited: TERMINATED_NORMAL_EXIT, whatever the status says.
//     -> RUNNING      general, time-out, no kill allowed: RUNNING_ABNORMAL_TERM_TIMEOUT.
//   RESTARTING   general only. isRestartStarted_ 0: the old process is being ended, and killed
//                after the time-out; 1: the new one has been started.
//     -> RUNNING      the new process is seen alive: RUNNING_NORMAL_RESTART.
//     -> TERMINATED   the new process could not be started, or exited: TERMINATED_ABNORMAL_EXIT.
//   TERMINATED   exit seen. Base: reported as TERMINATED_ABNORMAL_EXIT at every pass, which drives
//                the restart decision, until a restart succeeds or the record is erased. General:
//                erased from generalAppMap_ in the same pass.
//
// Locks: base records are guarded by baseAppMutex_, general records by generalAppMutex_ (core).
// Every operation below is called with the record's lock held, or on a record that no list holds
// yet.
#ifndef APP_APP_INFO_H
#define APP_APP_INFO_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/manifest.h"
#include "base/app_state.h"
#include "base/steady_time.h"
#include "status/picture.h"

namespace ProcMgr::App {

class UserGroupsOnce;

// The exit code of a child whose execv failed with EIO.
inline constexpr int kExitCodeEio = 125;

// A first element of a core list that stands for all reserved cores.
inline constexpr std::uint32_t kAllReservedCores = 255;

// The keys of the dynamic parameters of a request.
enum class ParamKey : int { kExecPath = 0, kVfId = 1, kEnv = 2 };

class AppInfo {
 public:
  AppInfo() = default;
  AppInfo(const ApplicationManifest& manifest, std::string name, std::string owner);
  virtual ~AppInfo() = default;
  AppInfo(const AppInfo&) = default;
  AppInfo& operator=(const AppInfo&) = default;

  // True if there is a process and it is up.
  [[nodiscard]] bool IsRunning() const { return pid_ != 0 && state_ == ProcessState::RUNNING; }

  // True if a step of the state machine would change nothing: the process is up, no exit is on
  // file, and the last event has been taken.
  [[nodiscard]] bool IsAtRest() const {
    return state_ == ProcessState::RUNNING && !isExited_ && !isTerminatedByEio_ &&
           reportState_ == ReportAppStateType::INVALID_INTERMEDIATE_STATE;
  }

  // Sends SIGTERM. False only for a pid that can't be one: a process that has gone in the meantime
  // is dealt with by its exit status.
  [[nodiscard]] bool TermProcess();

  void KillProcess() const;

  // Files the wait status of the record's process for the next CheckState. Reaper.
  void SetExitStatus(int status);

  // A look at the process that takes nothing away from the reaper: 0 it is there, 1 there is no
  // such child, 2 it is stopped.
  [[nodiscard]] int ProbeProcess() const;

  // Checks a request's values against the manifest's patterns and writes them into the record.
  // False, with a log line, for a value that doesn't fit; what was written before stays. Always
  // true for a record without dynamic parameters.
  [[nodiscard]] bool UpdateDynamicParam(const std::vector<std::string>& args,
                                        const std::map<int, std::vector<std::string>>& params);

  // Binds the process and its threads to coreAffinity_, or to the default control cores. True only
  // if every binding succeeded.
  [[nodiscard]] bool BindCoreForDelayApp();
  [[nodiscard]] bool BindCoreToDefault();

  // Binds the threads that no earlier call has bound. True only if there was none.
  [[nodiscard]] bool CheckMissingTids();

  // Forgets which threads have been bound. Always true, as ScanDelayCoreAffinityApps wants it.
  [[nodiscard]] bool ClearBoundTids();

  // What each pass looks at stands together at the front of the record: with many applications a
  // pass costs what it has to fetch from memory.
  pid_t pid_ = 0;  // Of the current or the last process; never cleared at an exit.
  ProcessState state_ = ProcessState::INITSTATE;
  ReportAppStateType reportState_ = ReportAppStateType::INVALID_INTERMEDIATE_STATE;
  bool isExited_ = false;  // An exit status waits in exitStatus_; the process has been reaped.
  bool isReporting_ = false;
  bool isTerminatedByEio_ = false;
  std::int32_t exitStatus_ = 0;

  std::string appName_;
  std::uint32_t uid_ = 0;
  std::uint32_t gid_ = 0;
  std::vector<std::uint32_t> coreAffinity_;
  std::string resGroupName_;
  std::string execPath_;
  std::vector<std::string> arguments_;
  std::map<std::string, std::string> envArgv_;
  std::uint32_t termTimeOut_ = 0;  // Milliseconds.
  std::string homeEnv_;
  bool isSetRtPrio_ = false;
  // Carried along; the daemon never reads it. For a platform whose launch sets a security context.
  std::string securityCon_;
  std::string cpuset_;
  std::string restart_;
  std::string ownerName_;
  std::int32_t nodeType_ = 0;
  std::int32_t startupPriority_ = -1;
  bool isPriorityPending_ = false;
  bool isDelayCoreAffinity_ = false;
  std::set<std::uint32_t> boundTids_;
  SteadyTime startTime_{};
  std::int32_t vfId_ = -1;
  bool isDynamicPara_ = false;
  bool isExecPathDynamic_ = false;
  std::string execPathPattern_;
  bool isArgvDynamic_ = false;
  std::vector<std::string> argvTemplate_;
  bool isEnvDynamic_ = false;
  std::map<std::string, std::string> envTemplate_;
  bool isVfIdDynamic_ = false;
  std::string vfIdPattern_;
  Status::AppId statusId_ = 0;  // Under which the manager's memory knows it; 0: not at all.

 protected:
  // The checks that can still refuse a start, each with its log line. `groups` are the user's.
  [[nodiscard]] bool PrepareStart(UserGroupsOnce& groups) const;
  [[nodiscard]] std::optional<Status::CauseKind> FindFault(UserGroupsOnce& groups) const;

  // What a start clears in a record that has run before.
  void ClearForStart();

  // The pointers of an argument vector into the record's own texts, null-terminated.
  [[nodiscard]] std::vector<char*> BuildArgv();

  // Whether the exit on file is one with 0.
  [[nodiscard]] bool IsSuccess() const;

  // Reads an exit that nobody asked for into reportState_ and isTerminatedByEio_.
  void ClassifyExit();

  // Sends `signal`, unless the process has gone: its pid may be a stranger's by now.
  [[nodiscard]] bool Signal(int signal) const;

  // The rows of the state machine that both kinds share.
  [[nodiscard]] ProcessState CheckStarting();
  [[nodiscard]] ProcessState CheckRunning();
  void LogUnexpectedState() const;

 private:
  [[nodiscard]] bool BindThreads(const std::vector<std::uint32_t>& cores) const;
  void UpdateArgv(const std::vector<std::string>& args);
  [[nodiscard]] bool UpdateExecvPath(const std::vector<std::string>& values);
  [[nodiscard]] bool UpdateVfId(const std::vector<std::string>& values);
  [[nodiscard]] bool UpdateEnv(const std::vector<std::string>& values);
  [[nodiscard]] bool UpdateEnvEntry(const std::string& text, std::string& logText);
};

class BaseAppInfo : public AppInfo {
 public:
  explicit BaseAppInfo(const ApplicationManifest& manifest);

  // Starts the process and writes STARTING. False: no process exists and the state is unchanged.
  // Forks; may take as long as the digest of a listed binary takes.
  [[nodiscard]] bool StartProcess();

  // One step of the state machine: yields the next state and writes reportState_. Check thread.
  [[nodiscard]] ProcessState CheckState();

  // Whether the record is to be started again now. Counts the restart with "on-failure", and gives
  // the policy up ("no") at the sixth within a minute. Check thread.
  [[nodiscard]] bool CheckRestart() { return CheckRestartAt(SteadyNow()); }
  [[nodiscard]] bool CheckRestartAt(SteadyTime now);

  // Asks the process to end, and has nobody start it again. The caller writes TERMINATING.
  void EndForGood();

  // Whether the policy keeps the record after its end.
  [[nodiscard]] bool IsRestartKept() const;

  std::set<std::string> dependList_;
  bool isForceTerm_ = false;
  std::string startupEntryPath_;
  // The restart that follows its end is decided when the digest of its program is known.
  bool isDigestAwaited_ = false;
  std::deque<SteadyTime> restartTimes_;  // Of the counted restarts, oldest first, five at most.
  bool isReady_ = false;
};

class GeneralAppInfo : public AppInfo {
 public:
  // A record that carries a name and nothing else, to answer for an application that isn't known.
  GeneralAppInfo() = default;
  GeneralAppInfo(std::string name, const ApplicationManifest& manifest, std::string owner);

  // Starts the process; the caller sets state_. False: no process exists. Forks; may take as long
  // as the digest of a listed binary takes.
  [[nodiscard]] bool StartProcess();

  // One step of the state machine, as for a base record. Check thread, or the request by which an
  // owner takes a priority application over. Forks when a restart's old process has gone.
  [[nodiscard]] ProcessState CheckState() { return CheckStateAt(SteadyNow()); }
  [[nodiscard]] ProcessState CheckStateAt(SteadyTime now);

  void SetTermBeginTime() { termBeginTime_ = SteadyNow(); }

  // When the time-out of an end that has been asked for is up; far off if there is none.
  [[nodiscard]] SteadyTime TermTimeEnd() const;

  // Asks the process to end, writes TERMINATING, and leaves the time-out to the caller: no step of
  // the state machine kills it, gives up, or starts it again.
  void EndForGood();

  // Takes over the values of a manifest that was loaded again. They count from the next start.
  void UpdateManifest(const ApplicationManifest& manifest);

  SteadyTime termBeginTime_{};
  std::int32_t nice_ = 0;
  // Carried along; the daemon never reads these four. For a platform whose launcher loads a shared
  // object into a host process and binds that.
  bool isSo_ = false;
  std::string soName_;
  std::string soPath_;
  std::string processBindPath_;
  bool isForceTerm_ = false;
  bool savedForceTerm_ = false;
  std::int32_t schedPolicy_ = 5;
  bool isKillSent_ = false;
  std::vector<SharepoolGroupsInfo> sharepoolGroups_;
  bool heartBeatSwitch_ = false;
  std::uint32_t isRestartStarted_ = 0;

 private:
  [[nodiscard]] ProcessState CheckTerminating(SteadyTime now);
  [[nodiscard]] ProcessState CheckRestarting(SteadyTime now);
  [[nodiscard]] ProcessState StartAgain();
  [[nodiscard]] bool IsTermTimeUp(SteadyTime now) const;
  void InitDynamicFields(const ApplicationManifest& manifest);
};

// Sends `signal` to `pid` and logs the outcome. False for a pid below 1 and for a failed kill. The
// caller holds the lock of the record that owns `pid`, and the record has no exit on file: only
// then can the pid not be a stranger's.
[[nodiscard]] bool SendSignal(int signal, const std::string& appName, pid_t pid);

// Says in the log how a process ended.
void LogExitStatus(int status, const std::string& appName, pid_t pid);

}  // namespace ProcMgr::App

#endif  // APP_APP_INFO_H
