// The life of the manager's own threads.
#include <pthread.h>

#include <csignal>
#include <ctime>
#include <exception>

#include "core/log.h"
#include "core/process_manager.h"

namespace ProcMgr {
namespace {

// Interrupts the system call in which a thread sits. Its default action is to be ignored, so one
// that comes too late does nothing.
constexpr int kWakeSignal = SIGURG;

void OnWakeSignal(int) {}

// A signal can arrive just before the thread enters its system call, so it is repeated until the
// thread has ended.
void WakeAndJoin(std::thread& worker) {
  if (!worker.joinable()) {
    return;
  }
  constexpr long kRepeatNs = 10'000'000;
  const pthread_t handle = worker.native_handle();
  for (;;) {
    (void)pthread_kill(handle, kWakeSignal);
    timespec deadline{};
    (void)clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += kRepeatNs;
    if (deadline.tv_nsec >= 1'000'000'000) {
      deadline.tv_nsec -= 1'000'000'000;
      ++deadline.tv_sec;
    }
    if (pthread_timedjoin_np(handle, nullptr, &deadline) == 0) {
      worker.detach();  // Joined already; the object has to be told.
      return;
    }
  }
}

}  // namespace

// An exception, out of memory above all, ends one round of a body and not the supervision.
std::thread ProcessManager::StartWorker(void (ProcessManager::*body)()) {
  return std::thread([this, body] {
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
  struct sigaction action {};
  action.sa_handler = &OnWakeSignal;  // Without SA_RESTART: the system call is to end.
  (void)sigaction(kWakeSignal, &action, nullptr);
  WakeAndJoin(signalThread_);  // First: it starts the next.
  std::thread coreAffinityThread = TakeCoreAffinityThread();
  WakeAndJoin(coreAffinityThread);
  WakeAndJoin(waitThread_);
  WakeAndJoin(checkThread_);
  WakeAndJoin(childMsgThread_);
}

}  // namespace ProcMgr
