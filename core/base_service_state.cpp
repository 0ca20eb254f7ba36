// What a base service says about itself.
#include "base/boot_trace.h"
#include "base/names.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "host/core_affinity_mgr.h"
#include "status/memory.h"

namespace ProcMgr {
namespace {

enum class ServiceState : std::uint32_t { kAccessUp = 0, kReportAll = 1, kReady = 2, kLeaving = 3 };

// Whether `fd` is still the sender's channel; with a log line if it isn't. The report may have
// waited for the lock while the channel was closed: then a process of the past has sent it.
bool IsCurrentChannel(ProcMgrMaster& master, const std::string& sender, int fd)
    REQUIRES(baseAppMutex_) {
  if (master.GetFdFromProcName(sender) == fd) {
    return true;
  }
  LogError("PROCMGR : GetProcNameFromFd failed: fd: %d", fd);
  return false;
}

void PUpdateBaseSeriverReadyInfo(ProcMgrMaster& master, const std::string& name, int fd)
    EXCLUDES(baseAppMutex_) {
  const MutexLock lock(baseAppMutex_);
  App::BaseAppInfo* const app = FindBaseApp(name);
  if (app == nullptr) {
    LogError("PUpdateBaseSeriverReadyInfo failed, not find base app=%s", name.c_str());
    return;
  }
  if (IsCurrentChannel(master, name, fd)) {
    app->isReady_ = true;
  }
}

}  // namespace

void ProcessManager::UpdateBaseAppState(const std::string& sender, std::uint32_t state, int fd) {
  LogInfo("%s PM revice BASESERVICE_STATE_REPORT msg from %s report state=%s",
          BootStrace(kBootTraceTag).c_str(), sender.c_str(),
          Message::GetBaseServiceStateTypeStr(state).c_str());
  switch (static_cast<ServiceState>(state)) {
    case ServiceState::kAccessUp:
      if (sender == kAccessService) {
        reporter_.RegisterVfs();
        ReportPriorityApps();
        UpdateBaseServiceReady(sender, fd);
      }
      break;
    case ServiceState::kReportAll:
      if (sender == kAccessService) {
        reporter_.ReportAllApps();
      }
      break;
    case ServiceState::kReady:
      UpdateBaseServiceReady(sender, fd);
      SetReportedState(sender, ProcessState::RUNNING, fd);
      break;
    case ServiceState::kLeaving:
      SetReportedState(sender, ProcessState::TERMINATING, fd);
      break;
  }
}

void ProcessManager::SetReportedState(const std::string& sender, ProcessState state, int fd) {
  const MutexLock lock(baseAppMutex_);
  App::BaseAppInfo* const app = FindBaseApp(sender);
  if (app == nullptr) {
    LogError("PROCMGR : UpdateBaseAppState failed, not find app=%s from executedBaseApp",
             sender.c_str());
    return;
  }
  if (!IsCurrentChannel(master_, sender, fd)) {
    return;
  }
  if (state == ProcessState::RUNNING) {
    UpdateFaultSensor(sender, app->nodeType_, Fault::kOff);
  }
  handshake_.TakeReport(*app, state);
  if (app->state_ == ProcessState::RUNNING) {
    Status::Memory::Instance().NoteRunning(app->statusId_);
  } else if (app->state_ == ProcessState::TERMINATING) {
    Status::Memory::Instance().NoteStopping(app->statusId_, {});
  }
}

void ProcessManager::UpdateBaseServiceReady(const std::string& name, int fd) {
  PUpdateBaseSeriverReadyInfo(master_, name, fd);
  const MutexLock lock(generalAppMutex_);
  for (const auto& [appName, app] : generalApps_.All()) {
    if (app->ownerName_ == name) {
      app->isPriorityPending_ = false;
    }
  }
}

// The manager holds no record of these processes: it passes on what "ventrix" says.
void ProcessManager::HandleAppExecReport(const Message::AppExecInfo& info) {
  LogInfo(
      "%s PM revice APP_EXECUTION_REPORT msg from ventrix report appName=%s, pid=%d, gid=%u, "
      "state=%s",
      BootStrace(kBootTraceTag).c_str(), info.appName.c_str(), info.pid, info.gid,
      Message::GetAppExecStateStr(info.state).c_str());
  const bool isUp = info.state == 0;
  if (!isUp) {
    CoreAffinityMgr::Instance().RecycleThreadCoreInfo(info.pid, info.appName);
  }
  const ReportAppStateType state =
      isUp ? ReportAppStateType::RUNNING_NORMAL_START : ReportAppStateType::TERMINATED_NORMAL_EXIT;
  // Lost news are made up for by the next report.
  reporter_.ReportAppState(
      {{info.appName, info.pid, info.gid, static_cast<std::uint32_t>(state), 0}}, kAccessService);
}

}  // namespace ProcMgr
