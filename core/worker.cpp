#include "core/worker.h"

#include <pthread.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <utility>

#include "base/may_wait.h"
#include "base/mutex.h"
#include "base/steady_time.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

// Interrupts the system call in which a thread sits. Its default action is to be ignored, so one
// that comes too late does nothing.
constexpr int kWakeSignal = SIGURG;
constexpr std::chrono::milliseconds kRepeat{10};

void OnWakeSignal(int) {}

void RunToItsEnd(const std::atomic<bool>& running, const std::function<void()>& body) {
  do {
    try {
      body();
      return;
    } catch (const std::exception& error) {
      LogError("PROCMGR: Caught exception=%s", error.what());
    } catch (...) {
      LogError("PROCMGR: Caught unknown exception.");
    }
  } while (running.load());
}

}  // namespace

// Whether the body has returned.
class Worker::End {
 public:
  void Tell() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    isOver_ = true;
    over_.NotifyAll();
  }

  // Yields false if it hasn't by then.
  [[nodiscard]] bool WaitUntil(SteadyTime deadline) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (!isOver_ && over_.WaitUntil(mutex_, deadline)) {
    }
    return isOver_;
  }

 private:
  Mutex mutex_;
  CondVar over_;
  bool isOver_ GUARDED_BY(mutex_) = false;
};

void Worker::Start(const std::atomic<bool>& running, std::function<void()> body) {
  auto end = std::make_shared<End>();
  thread_ = std::thread([end, &running, body = std::move(body)] {
    RunToItsEnd(running, body);
    end->Tell();
  });
  end_ = std::move(end);
}

// A signal can arrive just before the thread enters its system call, so it is repeated until the
// body has returned.
void Worker::WakeAndJoin() {
  MayWait("WakeAndJoin");
  if (!thread_.joinable()) {
    return;
  }
  do {
    (void)pthread_kill(thread_.native_handle(), kWakeSignal);
  } while (!end_->WaitUntil(SteadyNow() + kRepeat));
  thread_.join();
}

void InstallWakeHandler() {
  struct sigaction action {};
  action.sa_handler = &OnWakeSignal;  // Without SA_RESTART: the system call is to end.
  (void)sigaction(kWakeSignal, &action, nullptr);
}

}  // namespace ProcMgr
