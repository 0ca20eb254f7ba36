#include "base/child_msg_pipe.h"
#include "base/sleep.h"
#include "core/log.h"
#include "core/process_manager.h"

namespace ProcMgr {

void ProcessManager::ReciveChildProcessMsgThread() {
  // Lets the texts of several children gather into one line.
  constexpr std::int64_t kPauseNs = 500'000'000;
  while (running_.load()) {
    ReadChildMsg();
    SleepNs(kPauseNs);
  }
  LogWarning("PROCMGR: ReciveChildProcessMsgThread exit now.");
}

}  // namespace ProcMgr
