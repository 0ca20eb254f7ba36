// The service's heart: beats to the manager, and a thread that sends them.
#ifndef AGENT_HEARTBEAT_H
#define AGENT_HEARTBEAT_H

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "agent/process_manager_agent.h"
#include "base/mutex.h"
#include "base/unique_fd.h"

namespace ProcMgr {

// Sends beats under one name. Any thread.
class BeatSender {
 public:
  explicit BeatSender(std::string name);

  // The manager's queue is short and all services share it: a beat that finds it full waits for
  // room, at most 500 ms. Every beat is addressed anew, so it finds a manager that was restarted.
  [[nodiscard]] Result Beat() const;

 private:
  const std::string name_;
  const UniqueFd socket_;
};

// Calls a function again and again, on a thread of its own that blocks all signals.
class PeriodicThread {
 public:
  PeriodicThread() = default;
  ~PeriodicThread();
  PeriodicThread(const PeriodicThread&) = delete;
  PeriodicThread& operator=(const PeriodicThread&) = delete;

  // Calls `work` now and then every `period`; periods that a long call has missed are left out. A
  // thread that runs already is ended first. `work` must let no exception out. Throws what
  // std::thread throws, with no thread running then.
  void Start(std::chrono::milliseconds period, std::function<void()> work)
      EXCLUDES(control_, mutex_);
  // Returns when `work` runs no more. Not to be called by it.
  void Stop() EXCLUDES(control_, mutex_);

 private:
  void Join() REQUIRES(control_);
  void Body(std::chrono::milliseconds period, const std::function<void()>& work) EXCLUDES(mutex_);

  // Held over a whole Start or Stop, so that two of them don't meet. Taken before mutex_.
  Mutex control_;
  std::thread thread_ GUARDED_BY(control_);

  Mutex mutex_ ACQUIRED_AFTER(control_);
  CondVar changed_;
  bool ending_ GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr

#endif  // AGENT_HEARTBEAT_H
