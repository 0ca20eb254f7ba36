// The order of the boot, and the way out.
#include <exception>

#include "base/boot_trace.h"
#include "base/child_msg_pipe.h"
#include "core/faults.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/orderly_stop.h"
#include "core/pass_bell.h"
#include "core/process_manager.h"
#include "core/quick_start.h"
#include "host/core_affinity_mgr.h"
#include "host/host_limits.h"
#include "host/integrity_protect.h"
#include "host/kernel_cmdline.h"
#include "host/sharepool_cfg.h"
#include "message/keeper.h"
#include "platform/heartbeat/heartbeat.h"
#include "status/memory.h"

namespace ProcMgr {
namespace {

std::optional<std::chrono::milliseconds> SinceBeat(const std::string& name) {
  std::uint64_t age = 0;
  if (GetHeartBeatAge(name.c_str(), name.size(), age) != 0) {
    return std::nullopt;
  }
  return std::chrono::milliseconds(age);
}

}  // namespace

ProcessManager::ProcessManager(std::string baseServiceCfgPath)
    : baseServiceCfgPath_(std::move(baseServiceCfgPath)),
      master_([this](int fd, const NexioRequest* request) { RequstMsgHandler(fd, request); }),
      reporter_(master_),
      statusService_(Status::Memory::Instance(), {[this](const std::string& name) {
                                                    return master_.GetFdFromProcName(name) > 0;
                                                  },
                                                  &SinceBeat}) {}

ProcessManager::~ProcessManager() {
  statusService_.Stop();
  UnregisterSensorNodes();
  DisableAllCheckHeartBeat();
  running_.store(false);
  master_.Detach();
  StopWorkers();
  CloseChildMsgPipe();
}

void ProcessManager::StopWorkers() {
  InstallWakeHandler();
  signalThread_.WakeAndJoin();
  platformEvents_.Close();
  eventThread_.WakeAndJoin();  // Before the next, whose thread it starts.
  delayedBinding_.Stop();
  waitThread_.WakeAndJoin();
  checkThread_.WakeAndJoin();
  childMsgThread_.WakeAndJoin();
}

bool ProcessManager::Init() {
  const Status::PhaseScope phase(Status::Phase::kInit);
  InstallContinueHandler();
  LoadProcMgrCfg(kProcMgrCfgFile, procMgrCfg_);
  if (procMgrCfg_.reaction == Reaction::kImmediate) {
    passBell.Enable();
    IntegrityProtect::Instance().TellVerdicts([] { passBell.Ring(); });
  }
  InitHostContext();
  SharepoolCfg::Instance().InitSharepool();
  IntegrityProtect::Instance().LoadHashCfg();
  UpdateStartupYaml(HostContext::Instance(), baseServiceCfgPath_);
  SetLockedMemoryLimit();
  InquireHomeEnvVariable();
  if (!HostContext::Instance().isQuickStart_.load()) {
    CoreAffinityMgr::Instance().LoadCpuInfo();
  }
  LogInfoRouted("%s, init success", BootStrace(kBootTraceTag).c_str());
  if (procMgrCfg_.status.isEnabled) {
    (void)statusService_.Start(procMgrCfg_.status.gid);  // It has logged its failure.
  }
  return true;
}

// The check loop and the reaper exist before the first child does.
void ProcessManager::Run() {
  checkThread_.Start(running_, [this] { CheckThread(); });
  waitThread_.Start(running_, [this] { WaitThread(); });
  signalThread_.Start(running_, [this] { PlatformSignalThread(); });
  StartKeeper();
  {
    const Status::PhaseScope phase(Status::Phase::kPriority);
    InitPriorityApps(baseServiceCfgPath_);
  }
  {
    const Status::PhaseScope phase(Status::Phase::kContinue);
    WaitContinueSignal(stop_);
    ContinueProcMgrInit();
  }
  // The core lists have been read, by which it goes.
  eventThread_.Start(running_, [this] { PlatformEventThread(); });
  childMsgThread_.Start(running_, [this] { ReciveChildProcessMsgThread(); });
  InitBaseApplication(baseServiceCfgPath_);
  Status::Memory::Instance().EndBoot();
  stop_.Await();
  StopApplications(stop_, handshake_);
}

int ProcMgrRun(const std::string& baseServiceCfgPath) {
  ForbidWaitsUnderListLocks();
  ProcessManager manager(baseServiceCfgPath);
  if (!manager.Init()) {
    return 1;
  }
  try {
    manager.Run();
    return 0;
  } catch (const std::exception& error) {
    LogError("PROCMGR: Caught exception=%s", error.what());
  } catch (...) {
    LogError("PROCMGR: Caught unknown exception.");
  }
  return 1;
}

}  // namespace ProcMgr
