// General applications that come up before any base service, and their hand-over to their owners.
#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "base/boot_trace.h"
#include "base/names.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "core/self_reported.h"
#include "core/status_feed.h"
#include "host/cgroups.h"
#include "host/core_affinity_mgr.h"
#include "host/kernel_cmdline.h"
#include "host/sharepool_cfg.h"
#include "message/upload_service.h"

namespace ProcMgr {
namespace {

// The smallest priority first, and among equals the smallest name.
bool StartsEarlier(const PriorityAppEntry& left, const PriorityAppEntry& right) {
  return std::tie(left.priority, left.appName) < std::tie(right.priority, right.appName);
}

// A file that can't be parsed has no entries; the library has said why.
std::vector<ApplicationManifest> ParseFile(const std::string& path) {
  std::vector<ApplicationManifest> manifests;
  (void)ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, path, manifests, {});
  return manifests;
}

void BindPriorityAppThread(const App::GeneralAppInfo& app, pid_t id) {
  std::string err;
  const CgroupInfo info{app.appName_, id,
                        app.resGroupName_.empty() ? kDefaultResGroup : app.resGroupName_,
                        app.cpuset_.empty() ? kDefaultCpuset : app.cpuset_};
  if (!AddPidToCgroupTasks(info, err)) {
    LogWarning("Add priority app to cgroup tasks failed, errinfo=%s, tid=%d", err.c_str(), id);
  }
  err.clear();
  if (!app.isDelayCoreAffinity_ &&
      CoreAffinityMgr::Instance().SetCoreAffinityToOs(id, app.coreAffinity_, err) != 0) {
    LogWarning("priority app SetCoreAffinityToOs failed, errinfo=%s, app=%s", err.c_str(),
               app.appName_.c_str());
  }
}

// The process, its threads, and those that came up during the first walk.
void BindPriorityApp(const App::GeneralAppInfo& app) {
  BindPriorityAppThread(app, app.pid_);
  std::set<std::uint32_t> tids;
  (void)CoreAffinityMgr::GetTids(app.pid_, tids);
  for (const std::uint32_t tid : tids) {
    BindPriorityAppThread(app, static_cast<pid_t>(tid));
  }
  std::set<std::uint32_t> tidsNow;
  (void)CoreAffinityMgr::GetTids(app.pid_, tidsNow);
  std::vector<std::uint32_t> added;
  std::set_difference(tidsNow.begin(), tidsNow.end(), tids.begin(), tids.end(),
                      std::back_inserter(added));
  for (const std::uint32_t tid : added) {
    BindPriorityAppThread(app, static_cast<pid_t>(tid));
  }
}

// Finds the priority applications of all entry files that the base-service file names, in the order
// in which they are read. Yields 0 or kLoadStartCfgFailed.
std::uint32_t LoadStartCfgInfo(const std::string& path, BaseServiceFile& file,
                               std::vector<PriorityAppEntry>& entries, StartupCfg& startupCfg) {
  if (!file.Load(path)) {
    LogErrorRouted("process-manager LoadStartCfgInfo=%s failed", path.c_str());
    return kLoadStartCfgFailed;
  }
  MentionBaseApps(file.Manifests());
  std::vector<ApplicationManifest> found;
  for (const ApplicationManifest& owner : file.Manifests()) {
    const std::string entryPath = owner.GetStartupEntryPath();
    if (entryPath.empty()) {
      continue;
    }
    LogInfoRouted("process-manager Load startupEntryPath=%s cfg", entryPath.c_str());
    for (const ApplicationManifest& manifest : ParseFile(entryPath)) {
      file.NoteOther(manifest.GetAppName());
      const std::int32_t priority = manifest.GetStartupPriority();
      if (priority == -1) {
        continue;
      }
      LogInfoRouted(
          "process-manager load startup priority app name=%s, startup priority=%d, owner=%s",
          manifest.GetAppName().c_str(), priority, owner.GetAppName().c_str());
      entries.push_back({priority, manifest.GetAppName(), owner.GetAppName(), manifest});
      found.push_back(manifest);
    }
  }
  startupCfg.StoreManifests(found);
  return 0;
}

void BindPriorityApps() EXCLUDES(generalAppMutex_) {
  const MutexLock lock(generalAppMutex_);
  for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
    // A process that has been reaped leaves a pid that may be a stranger's.
    if (app->startupPriority_ == -1 || app->state_ == ProcessState::TERMINATED || app->isExited_) {
      continue;
    }
    if (!CoreAffinityMgr::Instance().CheckIsCtrlCpu(app->appName_, app->coreAffinity_)) {
      LogError("app=%s, pid=%d, core affinity is not in ctrlcpu", app->appName_.c_str(), app->pid_);
    }
    BindPriorityApp(*app);
  }
}

void StartPriorityApp(GeneralAppTable& table, const PriorityAppEntry& entry)
    REQUIRES(generalAppMutex_) {
  const GeneralAppPtr app = table.GetGeneralApp(entry.appName, entry.ownerName);
  if (app == nullptr) {
    return;
  }
  if (FindGeneralApp(entry.appName) != nullptr) {
    // Two entry files list it: what the first has started isn't started over.
    LogWarningRouted("PROCMGR : priority app=%s is started already, ignore it from owner=%s",
                     entry.appName.c_str(), entry.ownerName.c_str());
    return;
  }
  app->isPriorityPending_ = true;
  MentionGeneralApp(*app);
  if (!LaunchGeneralApp(app)) {
    app->state_ = ProcessState::TERMINATED;
    app->reportState_ = ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
    LogInfoRouted("%s Start priority generalApp failed appName=%s, child_pid=%d",
                  BootStrace(kBootTraceTag).c_str(), entry.appName.c_str(), app->pid_);
    return;
  }
  app->state_ = ProcessState::STARTING;
  LogInfoRouted("%s Start priority generalApp success appName=%s, child_pid=%d",
                BootStrace(kBootTraceTag).c_str(), entry.appName.c_str(), app->pid_);
}

}  // namespace

void ProcessManager::InitPriorityApps(const std::string& path) {
  std::vector<PriorityAppEntry> entries;
  if (LoadStartCfgInfo(path, baseServiceFile_, entries, startupCfg_) != 0) {
    LogErrorRouted("process-manager InitPriorityApps failed LoadStartCfgInfo failed");
    return;
  }
  LogInfoRouted("%s InitPriorityApps load priority apps cfg finish",
                BootStrace(kBootTraceTag).c_str());
  StartPriorityApps(entries);
  LogInfoRouted("%s InitPriorityApps start priority apps finish",
                BootStrace(kBootTraceTag).c_str());
}

void ProcessManager::StartPriorityApps(std::vector<PriorityAppEntry>& entries) {
  std::vector<const PriorityAppEntry*> order;
  order.reserve(entries.size());
  for (const PriorityAppEntry& entry : entries) {
    order.push_back(&entry);
  }
  // Of two entries of one application the one that was read first decides who owns it.
  std::sort(order.begin(), order.end(), [](const auto* left, const auto* right) {
    return StartsEarlier(*left, *right) || (!StartsEarlier(*right, *left) && left < right);
  });
  for (const PriorityAppEntry* const entry : order) {
    const auto start = [&]() REQUIRES(generalAppMutex_) { StartPriorityApp(generalApps_, *entry); };
    if (!StartWithDigest(entry->appName, {}, start)) {
      return;
    }
  }
}

void ProcessManager::ContinueProcMgrInit() {
  GetBoardInfo();
  CoreAffinityMgr::Instance().LoadCpuInfo();
  AddPmToCgroupTasks();
  BindPriorityApps();
  if (procMgrCfg_.pmUploadEnable && !StartUploadService(reporter_)) {
    LogError("PROCMGR: pmuplaod RegXCallBack failed");
    return;
  }
  RegisterSensorNodes();
  LogInfo("%s, ContinueProcMgrInit success", BootStrace(kBootTraceTag).c_str());
}

void ProcessManager::ReportPriorityApps() {
  const MutexLock lock(generalAppMutex_);
  std::vector<Message::AppStateInfo> list;
  for (const auto& [name, app] : generalApps_.All()) {
    if (app->startupPriority_ != -1) {
      StepGeneralApp(*app, SteadyNow());
      list.push_back(MakeCurrentStateInfo(*app));
    }
  }
  (void)reporter_.ReportAppState(list, kAccessService);  // The reconciliation repeats it.
}

void ProcessManager::HandlePriorityApps(const GeneralAppPtr& app) {
  LogInfo("PROCMGR : HandlePriorityApps app=%s, pid=%d, state=%s to owner=%s",
          app->appName_.c_str(), app->pid_, GetProcessStateStr(app->state_).c_str(),
          app->ownerName_.c_str());
  app->isPriorityPending_ = false;
  StepGeneralApp(*app, SteadyNow());
  // The owner asked; if it can't hear the answer it has gone.
  (void)reporter_.ReportAppState({MakeCurrentStateInfo(*app)}, app->ownerName_);
}

}  // namespace ProcMgr
