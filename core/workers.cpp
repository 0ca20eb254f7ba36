// The life of the manager's own threads.
#include <exception>

#include "core/log.h"
#include "core/process_manager.h"

namespace ProcMgr {

// An exception, out of memory above all, ends one round of a body and not the supervision.
void ProcessManager::StartWorker(Worker& worker, void (ProcessManager::*body)()) {
  worker.Start([this, body] {
    do {
      try {
        (this->*body)();
        return;
      } catch (const std::exception& error) {
        LogError("PROCMGR: Caught exception=%s", error.what());
      } catch (...) {
        LogError("PROCMGR: Caught unknown exception.");
      }
    } while (running_.load());
  });
}

void ProcessManager::StopWorkers() {
  InstallWakeHandler();
  signalThread_.WakeAndJoin();
  platformEvents_.Close();
  eventThread_.WakeAndJoin();  // Before the next, which it starts.
  Worker coreAffinityThread = TakeCoreAffinityThread();
  coreAffinityThread.WakeAndJoin();
  waitThread_.WakeAndJoin();
  checkThread_.WakeAndJoin();
  childMsgThread_.WakeAndJoin();
}

}  // namespace ProcMgr
