// Every child of the manager ends here, whoever it is.
//
// The reaper looks at a zombie without taking it, files the exit in the record under the record's
// lock, and only then reaps. So a pid whose record has no exit on file can't have been given to a
// stranger, and whoever signals it under the same lock hits the right process or its zombie.
#include <sys/wait.h>

#include "base/may_wait.h"
#include "base/sleep.h"
#include "core/app_lists.h"
#include "core/log.h"
#include "core/pass_bell.h"
#include "core/process_manager.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kNoChildPauseNs = 30'000'000;

// The wait status as the kernel would give it with the reaping.
int RawWaitStatus(const siginfo_t& info) {
  constexpr int kCoreBit = 0x80;
  switch (info.si_code) {
    case CLD_EXITED:
      return (info.si_status & 0xff) << 8;
    case CLD_DUMPED:
      return info.si_status | kCoreBit;
    default:
      return info.si_status;
  }
}

// A moment that lies behind every start so far. Taken under the lock of a list: a child can end
// before its launch has noted the start time, and that note is made under the same lock, or before
// the entry that the reaper waits for.
SteadyTime AfterEveryStart() {
  return SteadyNow() + SteadyTime::duration(1);
}

// Yields whether there is a record of it.
bool FileExitStatus(pid_t pid, int status) EXCLUDES(generalAppMutex_, baseAppMutex_) {
  SteadyTime limit{};
  std::string generalName;
  {
    const MutexLock lock(generalAppMutex_);
    limit = AfterEveryStart();
    generalName = FindGeneralAppByPid(pid, limit);
  }
  {
    const MutexLock lock(baseAppMutex_);
    if (generalName.empty()) {
      WaitForBaseAppEntries();
      limit = AfterEveryStart();
    }
    const std::size_t index = FindBaseAppByPid(pid, limit);
    if (index < executedBaseApp_.size()) {
      executedBaseApp_[index].SetExitStatus(status);
      ProcMgrMaster::EndOpening(executedBaseApp_[index].appName_);
      return true;
    }
  }
  {
    const MutexLock lock(generalAppMutex_);
    const GeneralAppPtr app = generalName.empty() ? nullptr : FindGeneralApp(generalName);
    if (app != nullptr) {
      app->SetExitStatus(status);
      return true;
    }
  }
  LogWarning("PROCMGR: can not find app, pid=%d", pid);
  return false;
}

}  // namespace

void ProcessManager::WaitThread() {
  while (running_.load()) {
    MayWait("waitid");
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0 || info.si_pid <= 0) {
      SleepNs(kNoChildPauseNs);
      continue;
    }
    if (FileExitStatus(info.si_pid, RawWaitStatus(info))) {
      // Under no lock: the pass would run into it, on a busy core in the middle of the ring.
      passBell.Ring();
    }
    // A child of popen may have been taken by its pclose in the meantime: then there is none.
    (void)waitpid(info.si_pid, nullptr, WNOHANG);
  }
  LogWarning("PROCMGR: WaitThread exit now.");
}

}  // namespace ProcMgr
