// A thread of the manager's own, for the life of the manager.
#ifndef CORE_WORKER_H
#define CORE_WORKER_H

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace ProcMgr {

// Owned by one thread at a time. A worker that has been started must be joined before it goes.
class Worker {
 public:
  Worker() = default;

  // Runs `body` on a thread of its own. An exception, out of memory above all, ends one round of it
  // and not the supervision: it is logged, and the body runs again as long as `running`, which must
  // outlive the worker. Throws std::system_error if the system has no thread.
  void Start(const std::atomic<bool>& running, std::function<void()> body);

  // Joins a worker whose body ends as soon as it comes back from the system call in which it sits.
  // Does nothing for one that was never started.
  void WakeAndJoin();

 private:
  class End;

  std::shared_ptr<End> end_;
  std::thread thread_;
};

// Has the signal with which workers are woken end the system calls that it meets. Once, before the
// first WakeAndJoin.
void InstallWakeHandler();

}  // namespace ProcMgr

#endif  // CORE_WORKER_H
