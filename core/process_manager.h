// The engine: boot, supervision and requests.
//
// Threads
// -------
//   main              runs the boot (Run), then sits in a join for the rest of its life.
//   checkThread_      CheckThread: a pass over all records every 30 ms. Every consequence of an
//                     exit, every report and every restart happens here.
//   waitThread_       WaitThread: files the exit of every child in its record, and reaps it.
//   childMsgThread_   ReciveChildProcessMsgThread: carries to the log what children could not set
//                     up.
//   coreAffinityThread_
//                     CheckCoreAffinityThread, once a delayed binding was requested.
//   signalThread_     PlatformSignalThread: waits for the signals of a delayed binding and of a
//                     wake-up.
//   The messaging, upload and heartbeat libraries call RequstMsgHandler, OnPmUploadApp and
//   OnHeartBeatNotify, beside each other and beside the threads above.
//
// Who wakes whom: the check thread and the reaper are woken by time and by the kernel alone. The
// bring-up waits in the handshake (core/bring_up_handshake.h) for the channel and the report of one
// service; openings that end, UpdateBaseAppState and the check pass wake it.
//
// Who may wait for what: only a thread that serves nobody else, and under no lock of the lists.
//   main              for the channel and the report of the service that it brings up.
//   openers           one thread an opening (message/proc_mgr_master.h), for a service to serve.
//   keeper            the one thread that comes back, in everybody's place, to frames that a peer
//                     has no room for and to closings whose callback runs (message/keeper.h).
//   childMsgThread_   for children's texts; signalThread_ for signals.
// The check thread, the reaper and the libraries' threads ask, and go on: what became of a report,
// an opening or a closing is logged by whoever comes to know it. Each call that may wait names
// itself to base/may_wait.h, which ends debug and sanitizer builds if its thread holds a lock of
// the lists.
//
// Locks: core/app_lists.h tells all of them in their order.
#ifndef CORE_PROCESS_MANAGER_H
#define CORE_PROCESS_MANAGER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "app/app_info.h"
#include "app/manifest.h"
#include "base/mutex.h"
#include "core/app_lists.h"
#include "core/bring_up_handshake.h"
#include "host/core_affinity_mgr.h"
#include "host/proc_mgr_cfg.h"
#include "message/proc_mgr_master.h"
#include "message/request_msg.h"
#include "message/upload_msg.h"

namespace ProcMgr {

// What a failed load of a start-up configuration yields.
inline constexpr std::uint32_t kLoadStartCfgFailed = 0xF10405;

// One change of a general application, on its way to whoever owns it.
struct AppChange {
  std::string owner;
  Message::AppStateInfo info;
};

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

// The report of `state` about a record.
[[nodiscard]] Message::AppStateInfo MakeAppStateInfo(const App::AppInfo& app,
                                                     ReportAppStateType state,
                                                     std::uint32_t eioFlag);

// The report about a record that somebody asks about, rather than one that has just changed.
[[nodiscard]] Message::AppStateInfo MakeCurrentStateInfo(const App::AppInfo& app);

// One instance, on the stack of ProcMgrRun.
class ProcessManager {
 public:
  // `baseServiceCfgPath` is the resolved path of the base-service file.
  explicit ProcessManager(std::string baseServiceCfgPath);
  // Ends what an exception out of Run has left running, then closes the pipe and the log.
  ~ProcessManager();
  ProcessManager(const ProcessManager&) = delete;
  ProcessManager& operator=(const ProcessManager&) = delete;

  // Loads the configuration. Always true: every step reports its failure and falls back on a
  // default.
  [[nodiscard]] bool Init();

  // Starts everything and returns when all threads have been joined, which is never on a board.
  void Run();

 private:
  // core/bring_up.cpp: the base services along their dependency graph. Main thread.
  void InitBaseApplication(const std::string& path);
  [[nodiscard]] bool ParseYamlFile(const std::string& path,
                                   std::vector<ApplicationManifest>& manifests);
  [[nodiscard]] bool StartRound(const std::set<std::string>& names, bool& startOk);
  [[nodiscard]] bool InitOneBaseApplication(App::BaseAppInfo& app);
  [[nodiscard]] bool StartAndEnter(App::BaseAppInfo& app);
  [[nodiscard]] bool OpenFirstChannel(const std::string& name) EXCLUDES(baseAppMutex_);
  [[nodiscard]] FirstChannel StepFirstChannel(const std::string& name, bool& isAsked)
      EXCLUDES(baseAppMutex_);
  [[nodiscard]] bool CheckDepends(const std::set<std::string>& dependList, const std::string& name);
  void WaitBaseAppReported(const std::string& name);
  // Any thread.
  [[nodiscard]] std::shared_ptr<const std::vector<std::string>> BaseAppNames();
  void RegisterHeartBeat(const App::BaseAppInfo& app);

  // core/check_pass.cpp. Check thread.
  void CheckThread();
  void CheckBaseApps() EXCLUDES(baseAppMutex_);
  void HandleAbnormalExit(App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  void RestartIfWanted(App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  void OpenNewChannel(const App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  [[nodiscard]] bool RestartBaseApp(const std::string& name) REQUIRES(baseAppMutex_);
  void CheckGeneralApps() EXCLUDES(generalAppMutex_);
  void CollectChange(const App::GeneralAppInfo& app, std::vector<AppChange>& changes)
      REQUIRES(generalAppMutex_);
  void RemoveTerminatedApps() EXCLUDES(generalAppMutex_, baseAppMutex_);
  void DropChannel(const App::BaseAppInfo& app) REQUIRES(baseAppMutex_);
  [[nodiscard]] static std::uint32_t IsTerminatedByEio(const App::AppInfo& app);

  // core/reaper.cpp. Wait thread.
  void WaitThread();
  void FileExitStatus(pid_t pid, int status) EXCLUDES(generalAppMutex_, baseAppMutex_);

  // core/child_messages.cpp. Child message thread.
  void ReciveChildProcessMsgThread();

  // core/priority_apps.cpp. Main thread, but for the hand-over, which a request brings.
  void InitPriorityApps(const std::string& path);
  [[nodiscard]] std::uint32_t LoadStartCfgInfo(const std::string& path,
                                               std::vector<PriorityAppEntry>& entries);
  void StartPriorityApps(std::vector<PriorityAppEntry>& entries);
  void StartPriorityApp(const PriorityAppEntry& entry) REQUIRES(generalAppMutex_);
  void ContinueProcMgrInit();
  void BindPriorityApps();
  void HandlePriorityApps(const GeneralAppPtr& app) REQUIRES(generalAppMutex_);

  // core/dispatch.cpp. Threads of the messaging library.
  void RequstMsgHandler(int fd, const NexioRequest* request);
  void HandleRequest(int fd, const NexioRequest* request);
  void DispatchRequest(Message::RequestType type, const Message::RequestMsg& frame,
                       const std::string& sender, const NexioRequest& request, int fd);
  // Logs lost and slow heart messages.
  void CheckHeartMsg(const std::string& sender, const Message::RequestMsg& frame)
      EXCLUDES(heartMutex_);

  // core/base_service_state.cpp. Threads of the messaging library, the query of readiness apart.
  // `fd` is the channel that the report came through.
  void UpdateBaseAppState(const std::string& sender, std::uint32_t state, int fd);
  void SetReportedState(const std::string& sender, ProcessState state, int fd)
      EXCLUDES(baseAppMutex_);
  void UpdateBaseServiceReady(const std::string& name, int fd)
      EXCLUDES(generalAppMutex_, baseAppMutex_);
  // Whether `fd` is still the sender's channel; with a log line if it isn't. The report may have
  // waited for the lock while the channel was closed: then a process of the past has sent it.
  [[nodiscard]] bool IsCurrentChannel(const std::string& sender, int fd) REQUIRES(baseAppMutex_);
  void PUpdateBaseSeriverReadyInfo(const std::string& name, int fd) EXCLUDES(baseAppMutex_);
  [[nodiscard]] bool IsAccessServiceReady() EXCLUDES(baseAppMutex_);
  void HandleAppExecReport(const Message::AppExecInfo& info);

  // core/startup_cfg.cpp. Threads of the messaging library. Both loads yield 0 or
  // kLoadStartCfgFailed.
  [[nodiscard]] std::uint32_t LoadStartCfgInfo(const Message::StartupCfgInfo& cfg)
      EXCLUDES(cfgMapMutex_);
  [[nodiscard]] std::uint32_t ReLoadStartCfgInfo(const Message::StartupCfgInfo& cfg)
      EXCLUDES(generalAppMutex_, cfgMapMutex_);
  void StoreManifests(const std::vector<ApplicationManifest>& manifests) EXCLUDES(cfgMapMutex_);
  void HandleLoadRequest(const Message::RequestMsg& frame, const std::string& sender,
                         const NexioRequest& request, int fd);
  void HandleReloadRequest(const Message::RequestMsg& frame, const std::string& sender,
                           const NexioRequest& request, int fd);
  static void SendLoadResult(std::uint32_t ret, const NexioRequest& request, int fd);
  [[nodiscard]] static std::string GetStartupEntryPath(const std::string& name)
      EXCLUDES(baseAppMutex_);

  // core/general_apps.cpp. Threads of the messaging library.
  void StartApp(const std::vector<Message::StartAppInfo>& list, const std::string& sender);
  [[nodiscard]] bool StartOneApp(const Message::StartAppInfo& info, const std::string& sender,
                                 std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  [[nodiscard]] static bool IsStartable(const App::GeneralAppInfo& app, const std::string& sender,
                                        std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  void ResolveCoreAffinityAll(App::GeneralAppInfo& app) const REQUIRES(generalAppMutex_);
  void RestartApp(const std::vector<Message::RestartAppInfo>& list, const std::string& sender);
  void RestartOneApp(const Message::RestartAppInfo& info, const std::string& sender,
                     std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  static void EndForRestart(App::GeneralAppInfo& app) REQUIRES(generalAppMutex_);
  [[nodiscard]] static bool RestartStoppedApp(const GeneralAppPtr& app,
                                              std::vector<AppChange>& changes,
                                              const std::string& owner) REQUIRES(generalAppMutex_);
  void TermGeneralApp(const std::vector<Message::TermAppInfo>& list, const std::string& sender);
  void TermOneApp(const std::string& name, const std::string& sender,
                  std::vector<AppChange>& changes) REQUIRES(generalAppMutex_);
  [[nodiscard]] static bool IsAlreadyTerminated(const App::GeneralAppInfo& app,
                                                std::vector<AppChange>& changes,
                                                const std::string& owner)
      REQUIRES(generalAppMutex_);
  void QueryAppState(const std::vector<std::string>& names, const std::string& sender);
  // Null if the name can't be resolved.
  [[nodiscard]] GeneralAppPtr GetGeneralApp(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_);
  [[nodiscard]] GeneralAppPtr MakeDynamicApp(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_) EXCLUDES(cfgMapMutex_);
  void UpdateAllGeneralAppMap(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_) EXCLUDES(cfgMapMutex_);

  // core/reporting.cpp. Any thread. A report to a peer that has no room goes on without the caller.
  void ReportBaseAppState(const App::BaseAppInfo& app, ReportAppStateType state,
                          std::uint32_t eioFlag);
  void ReportGeneralApps(const std::vector<AppChange>& changes) EXCLUDES(generalAppMutex_);
  void RegisterVfs();
  void ReportPriorityApps() EXCLUDES(generalAppMutex_);
  void ReportAllApps() EXCLUDES(generalAppMutex_, baseAppMutex_);
  // These two yield what the master's do.
  bool ReportAppState(const std::vector<Message::AppStateInfo>& list, const std::string& owner,
                      Outcome outcome = {});
  bool ReportAppDetailStatus(const std::map<std::string, int>& status, const std::string& owner);
  static void UnRegServiceCallBack(const std::string& procName);

  // core/self_reported.cpp. Threads of the upload server; the check is the check thread's.
  [[nodiscard]] bool StartUploadService();
  [[nodiscard]] bool OnPmUploadApp(const PmUpload::LoadAppInfo& info, int fd);
  [[nodiscard]] static bool AddPmUploadApp(const PmUpload::LoadAppInfo& info, int fd)
      EXCLUDES(pmUploadMutex_);
  [[nodiscard]] static bool IsAppNameUsed(const std::string& name)
      EXCLUDES(generalAppMutex_, baseAppMutex_);
  static void AddPmUploadAppGroups(const PmUpload::LoadAppInfo& info);
  void CheckPmUploadApps() EXCLUDES(pmUploadMutex_);

  // core/delayed_binding.cpp. The entry points of the platform's sleep and wake events; the signal
  // thread calls them.
  [[nodiscard]] bool ScanDelayCoreAffinityApps(bool (App::AppInfo::*operation)())
      EXCLUDES(generalAppMutex_, baseAppMutex_);
  // Yields 0 or kDelayedBindingFailed.
  [[nodiscard]] std::uint32_t SetDelayCoreAffinity(const DelayCoreSettings& cfg);
  [[nodiscard]] bool WakeUpRecover();
  [[nodiscard]] static std::vector<AppCoreInfo> CollectCores(bool isWakeUpEnable)
      EXCLUDES(pmUploadMutex_, generalAppMutex_, baseAppMutex_);
  void CheckCoreAffinityThread();
  void BindNewThreads(const DelayCoreSettings& settings);
  void PlatformSignalThread();
  void RequestDelayedBinding() EXCLUDES(coreAffinityThreadMutex_);
  [[nodiscard]] std::thread TakeCoreAffinityThread() EXCLUDES(coreAffinityThreadMutex_);

  // core/workers.cpp.
  [[nodiscard]] std::thread StartWorker(void (ProcessManager::*body)());
  void StopWorkers();

  // Constant after Init.
  std::string baseServiceCfgPath_;
  ProcMgrCfg procMgrCfg_;
  // The cores that a core list of 255 stands for. Nothing fills it.
  std::set<std::uint32_t> reservedCoreSet_;

  // Main thread only.
  std::thread checkThread_;
  std::thread childMsgThread_;
  std::thread waitThread_;
  std::thread signalThread_;

  // Started by the signal thread at the first request.
  Mutex coreAffinityThreadMutex_;
  std::thread coreAffinityThread_ GUARDED_BY(coreAffinityThreadMutex_);
  bool isCoreAffinityThreadStarted_ GUARDED_BY(coreAffinityThreadMutex_) = false;

  std::atomic<bool> running_ = true;

  BringUpHandshake handshake_;
  // Behind what its openings still tell at their end.
  ProcMgrMaster master_;

  // Every general application with a fixed name that was ever asked for, with or without a process;
  // the records stay for the life of the manager.
  std::unordered_map<std::string, GeneralAppPtr> allGeneralAppMap_ GUARDED_BY(generalAppMutex_);

  // The manifests of what may be asked for, by name, and by name pattern.
  Mutex cfgMapMutex_ ACQUIRED_AFTER(baseAppMutex_);
  std::unordered_map<std::string, ApplicationManifest> startCfgMap_ GUARDED_BY(cfgMapMutex_);
  std::unordered_map<std::string, ApplicationManifest> dynamicCfgMap_ GUARDED_BY(cfgMapMutex_);

  // Per agent, what its last heart message said.
  struct HeartInfo {
    std::uint64_t index = 0;
  };
  Mutex heartMutex_;
  std::map<std::string, HeartInfo> heartInfoMap_ GUARDED_BY(heartMutex_);

  // The names of the base applications that this boot takes part in, in manifest order: published
  // once by the bring-up, read by every fan-out of reports.
  Mutex baseNamesMutex_;
  std::shared_ptr<const std::vector<std::string>> baseAppNames_ GUARDED_BY(baseNamesMutex_) =
      std::make_shared<const std::vector<std::string>>();
};

// Constructs, runs and destroys the manager. Yields 0 after a normal return of the run,
// otherwise 1.
[[nodiscard]] int ProcMgrRun(const std::string& baseServiceCfgPath);

}  // namespace ProcMgr

#endif  // CORE_PROCESS_MANAGER_H
