// The engine: boot, supervision and requests.
//
// Threads
// -------
//   main              runs the boot (Run), then waits for an orderly stop to be asked for, and does
//                     it (core/orderly_stop.h).
//   checkThread_      CheckThread: a pass over all records every 30 ms. Every consequence of an
//                     exit, every report and every restart happens here.
//   waitThread_       WaitThread: files the exit of every child in its record, and reaps it.
//   childMsgThread_   ReciveChildProcessMsgThread: carries to the log what children could not set
//                     up.
//   coreAffinityThread_
//                     CheckCoreAffinityThread (core/delayed_binding.h), once one was requested.
//   signalThread_     PlatformSignalThread: takes the signals of a delayed binding, of a wake-up
//                     and of an orderly stop as they come.
//   eventThread_      PlatformEventThread: does what the first two ask for.
//   The status service has a thread of its own (status/status_service.h), which takes no lock but
//                     that of the memory, the name table's and the heartbeat library's.
//   The messaging, upload and heartbeat libraries call RequstMsgHandler, OnPmUploadApp and
//   OnHeartBeatNotify, beside each other and beside the threads above.
//
// Who wakes whom: the check thread and the reaper are woken by time and by the kernel alone; with
// an immediate reaction set, the check thread by core/pass_bell.h besides. The
// bring-up waits in the handshake (core/bring_up_handshake.h) for the channel and the report of one
// service; openings that end, UpdateBaseAppState and the check pass wake it.
//
// Threads that have started a process run at a niceness of -10 from then on (app/spawn.h).
//
// Who may wait for what: only a thread that serves nobody else, and under no lock of the lists.
//   main              for the channel and the report of the service that it brings up.
//   openers           one thread an opening (message/proc_mgr_master.h), for a service to serve.
//   digest workers    for the digest of a program that is to be started again
//                     (host/integrity_protect.h); requests work theirs out on their own threads.
//   keeper            the one thread that comes back, in everybody's place, to frames that a peer
//                     has no room for and to closings whose callback runs (message/keeper.h).
//   log               the one thread that writes lines to syslog, for whoever reads them there. All
//                     others only queue theirs (core/log.h); where the queue is full and the reader
//                     gets on, they wait for room (base/line_queue.h).
//   childMsgThread_   for children's texts; signalThread_ for signals, eventThread_ for what they
//                     tell.
// The check thread, the reaper and the libraries' threads ask, and go on: what became of a report,
// an opening or a closing is logged by whoever comes to know it. Each call that may wait names
// itself to base/may_wait.h, which ends debug and sanitizer builds if its thread holds a lock of
// the lists.
//
// The life of a request
// ---------------------
//   message/proc_mgr_master.cpp     ProcMgrMasterRequstMsgHandler, on a thread of the messaging
//                                   library: is the manager still there?
//   core/dispatch.cpp               RequstMsgHandler: who sent it, is it whole? CheckHeartMsg
//                                   (core/heart_messages.h), then DispatchRequest unpacks it
//                                   (message/serialization.h) and calls one of:
//   core/general_apps.cpp             StartApp, RestartApp, TermGeneralApp, QueryAppState
//   core/base_service_state.cpp       UpdateBaseAppState, HandleAppExecReport
//   core/startup_requests.cpp         HandleLoadRequest, HandleReloadRequest
//   core/general_app_table.cpp      GetGeneralApp: the record of the name, or a new one from the
//                                   manifest that stands for it (core/startup_cfg.h).
//   app/dynamic_params.cpp          The request's values are written into the record.
//   core/app_lists.cpp              LaunchGeneralApp: starts the process and enters the record.
//   app/launch.cpp                  StartProcess: the checks of app/prepare_start.cpp, then
//   app/launch_plan.cpp               what the child will do, and
//   app/spawn.cpp                     the child itself.
//   app/child_steps.cpp             The child's way to its exec.
//   core/check_pass.cpp             The next pass sees the process alive: a change is collected.
//   core/reporter.cpp               ReportGeneralApps tells "iammgr" and the owner.
//
// The life of an exit
// -------------------
//   core/reaper.cpp                 WaitThread sees the zombie; FileExitStatus finds its record by
//                                   the indexes of core/app_lists.cpp.
//   app/exit_status.cpp             SetExitStatus files the status; then the reaper reaps.
//   core/check_pass.cpp             The next pass steps the record:
//   app/check_state.cpp               CheckState moves it on;
//   app/exit_status.cpp               ClassifyExit says what kind of end it was.
//   core/check_pass.cpp             HandleAbnormalExit, for a base service: the fault
//                                   (core/faults.h), the report (core/reporter.h), the end of the
//                                   channel (message/proc_mgr_master.h) and of the heartbeat.
//   app/restart_policy.cpp          CheckRestart: is it to be started again?
//   core/app_lists.cpp              RelaunchBaseApp starts it (app/launch.cpp) and files the pid;
//                                   OpenNewChannel begins the new opening.
//   core/check_pass.cpp             RemoveTerminatedApps drops a record that stays TERMINATED.
//
// Locks: core/app_lists.h tells all of them in their order.
#ifndef CORE_PROCESS_MANAGER_H
#define CORE_PROCESS_MANAGER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/manifest.h"
#include "base/mutex.h"
#include "core/app_lists.h"
#include "core/base_service_file.h"
#include "core/bring_up_handshake.h"
#include "core/delayed_binding.h"
#include "core/general_app_table.h"
#include "core/heart_messages.h"
#include "core/list_rest.h"
#include "core/platform_events.h"
#include "core/reporter.h"
#include "core/startup_cfg.h"
#include "core/stop_request.h"
#include "core/worker.h"
#include "host/proc_mgr_cfg.h"
#include "message/proc_mgr_master.h"
#include "message/request_msg.h"
#include "status/status_service.h"

namespace ProcMgr {

// Where the first channel of a service stands.
enum class FirstChannel {
  kOpen,
  kUnderWay,       // An opening waits for the service.
  kAwaitsRestart,  // The process has ended, and its policy will have it started again.
  kFailed,
};

// A priority application on its way to its start.
struct PriorityAppEntry {
  std::int32_t priority = -1;
  std::string appName;
  std::string ownerName;
  ApplicationManifest manifest;
};

// One instance, on the stack of ProcMgrRun.
class ProcessManager {
 public:
  // `baseServiceCfgPath` is the resolved path of the base-service file.
  explicit ProcessManager(std::string baseServiceCfgPath);
  // Ends what an exception out of Run has left running, then closes the pipe.
  ~ProcessManager();
  ProcessManager(const ProcessManager&) = delete;
  ProcessManager& operator=(const ProcessManager&) = delete;

  // Loads the configuration. Always true: every step reports its failure and falls back on a
  // default.
  [[nodiscard]] bool Init();

  // Starts everything, and ends it again when an orderly stop is asked for. Then it returns.
  void Run();

 private:
  // core/bring_up.cpp: the base services along their dependency graph. Main thread.
  void InitBaseApplication(const std::string& path);
  [[nodiscard]] bool StartRound(const std::set<std::string>& names, bool& startOk);
  [[nodiscard]] bool InitOneBaseApplication(App::BaseAppInfo& app);
  [[nodiscard]] bool OpenFirstChannel(const std::string& name) EXCLUDES(baseAppMutex_);
  [[nodiscard]] FirstChannel StepFirstChannel(const std::string& name, bool& isAsked)
      EXCLUDES(baseAppMutex_);
  void WaitBaseAppReported(const std::string& name);

  // core/check_pass.cpp. Check thread.
  void CheckThread();
  void CheckBaseApps() EXCLUDES(baseAppMutex_);
  [[nodiscard]] bool StepBaseApps() REQUIRES(baseAppMutex_);
  void HandleAbnormalExit(App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  void NoteOpeningEnd();
  void RestartIfWanted(App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  void OpenNewChannel(const App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  // Makes term time-outs longer by `lost`. Yields when the next one is up.
  [[nodiscard]] SteadyTime CheckGeneralApps(SteadyTime::duration lost) EXCLUDES(generalAppMutex_);
  [[nodiscard]] bool StepGeneralApps(SteadyTime::duration lost, SteadyTime& due,
                                     std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  void RemoveTerminatedApps() EXCLUDES(generalAppMutex_, baseAppMutex_);
  void RemoveTerminatedBaseApps() REQUIRES(baseAppMutex_);

  // core/reaper.cpp. Wait thread.
  void WaitThread();

  // core/child_messages.cpp. Child message thread.
  void ReciveChildProcessMsgThread();

  // core/priority_apps.cpp. Main thread, but for the last two, which requests bring.
  void InitPriorityApps(const std::string& path);
  void StartPriorityApps(std::vector<PriorityAppEntry>& entries);
  void ContinueProcMgrInit();
  void HandlePriorityApps(const GeneralAppPtr& app) REQUIRES(generalAppMutex_);
  void ReportPriorityApps() EXCLUDES(generalAppMutex_);

  // core/dispatch.cpp. Threads of the messaging library.
  void RequstMsgHandler(int fd, const NexioRequest* request);
  void HandleRequest(int fd, const NexioRequest* request);
  void DispatchRequest(Message::RequestType type, const Message::RequestMsg& frame,
                       const std::string& sender, const NexioRequest& request, int fd);

  // core/base_service_state.cpp. Threads of the messaging library.
  // `fd` is the channel that the report came through.
  void UpdateBaseAppState(const std::string& sender, std::uint32_t state, int fd);
  void SetReportedState(const std::string& sender, ProcessState state, int fd)
      EXCLUDES(baseAppMutex_);
  void UpdateBaseServiceReady(const std::string& name, int fd)
      EXCLUDES(generalAppMutex_, baseAppMutex_);
  void HandleAppExecReport(const Message::AppExecInfo& info);

  // core/startup_requests.cpp. Threads of the messaging library. The load yields 0 or
  // kLoadStartCfgFailed.
  [[nodiscard]] std::uint32_t ReLoadStartCfgInfo(const Message::StartupCfgInfo& cfg)
      EXCLUDES(generalAppMutex_);
  void HandleLoadRequest(const Message::RequestMsg& frame, const std::string& sender,
                         const NexioRequest& request, int fd);
  void HandleReloadRequest(const Message::RequestMsg& frame, const std::string& sender,
                           const NexioRequest& request, int fd);

  // core/general_apps.cpp. Threads of the messaging library.
  void StartApp(const std::vector<Message::StartAppInfo>& list, const std::string& sender);
  [[nodiscard]] bool StartOneApp(const Message::StartAppInfo& info, const std::string& sender,
                                 std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  void RestartApp(const std::vector<Message::RestartAppInfo>& list, const std::string& sender);
  void TermGeneralApp(const std::vector<Message::TermAppInfo>& list, const std::string& sender);
  void QueryAppState(const std::vector<std::string>& names, const std::string& sender);
  // Calls `start` under the lock once the digest of what it may start is at hand, which is worked
  // out without the lock; again, if somebody else has used it up by then or the file has changed.
  // False, and no call, from the request for an orderly stop on.
  [[nodiscard]] bool StartWithDigest(const std::string& name,
                                     const std::map<int, std::vector<std::string>>& params,
                                     const std::function<void()>& start) EXCLUDES(generalAppMutex_);

  // core/platform_events.cpp.
  void PlatformSignalThread();
  void PlatformEventThread();

  // core/run.cpp.
  void StopWorkers();

  // Constant after Init.
  std::string baseServiceCfgPath_;
  ProcMgrCfg procMgrCfg_;

  // Main thread only.
  BaseServiceFile baseServiceFile_;
  Worker checkThread_;
  Worker childMsgThread_;
  Worker waitThread_;
  Worker signalThread_;
  Worker eventThread_;

  // Check thread only.
  ListRest generalRest_;
  ListRest baseRest_;

  std::atomic<bool> running_ = true;
  StopRequest stop_;

  // Each with a lock and data of its own.
  StartupCfg startupCfg_;
  GeneralAppTable generalApps_{startupCfg_};
  PlatformEvents platformEvents_;
  DelayedBinding delayedBinding_{running_};
  HeartMessages heartMessages_;
  BringUpHandshake handshake_;
  // Behind what its openings still tell at their end.
  ProcMgrMaster master_;
  Reporter reporter_;
  // Behind what it asks: its thread ends first.
  Status::StatusService statusService_;
};

// Constructs, runs and destroys the manager. Yields 0 after a normal return of the run,
// otherwise 1.
[[nodiscard]] int ProcMgrRun(const std::string& baseServiceCfgPath);

}  // namespace ProcMgr

#endif  // CORE_PROCESS_MANAGER_H
