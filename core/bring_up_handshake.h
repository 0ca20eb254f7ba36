// What the bring-up waits for: one service's own report, and before that its channel.
#ifndef CORE_BRING_UP_HANDSHAKE_H
#define CORE_BRING_UP_HANDSHAKE_H

#include <cstdint>
#include <string>

#include "app/app_info.h"
#include "base/mutex.h"
#include "base/steady_time.h"
#include "core/app_lists.h"

namespace ProcMgr {

// The main thread awaits; the check pass and the services' reports answer. A base record's state_
// is written through here, under stateMutex_ besides baseAppMutex_.
class BringUpHandshake {
 public:
  // One step of the record's state machine. Check thread.
  void Step(App::BaseAppInfo& app) REQUIRES(baseAppMutex_) EXCLUDES(stateMutex_);

  // The service has said that it is RUNNING or TERMINATING. An end that the check pass has seen
  // stays an end, unless the service says that it runs.
  void TakeReport(App::BaseAppInfo& app, ProcessState state) REQUIRES(baseAppMutex_)
      EXCLUDES(stateMutex_);

  // The end of a check pass. A restart within the pass has brought the record back to STARTING by
  // now: only an end that nothing follows, or a restart that failed, ends the wait.
  void PublishAwaited() REQUIRES(baseAppMutex_) EXCLUDES(stateMutex_);

  // Main thread: begins to await `name`, whose record is to be waited for if it is there.
  void Await(const std::string& name) REQUIRES(baseAppMutex_) EXCLUDES(stateMutex_);
  // Waits until the awaited service is RUNNING, TERMINATING or TERMINATED, or until GiveUp; yields
  // its state, and awaits nothing any more.
  [[nodiscard]] ProcessState WaitForState() EXCLUDES(stateMutex_);

  // A channel's opening has ended, or a service will not be started again. Whoever counted Events
  // before is woken.
  void NoteEvent() EXCLUDES(stateMutex_);
  [[nodiscard]] std::uint64_t Events() EXCLUDES(stateMutex_);
  // Waits for an event after the first `seen`, until `deadline`.
  void WaitForEvent(std::uint64_t seen, SteadyTime deadline) EXCLUDES(stateMutex_);

  // The bring-up is to wait for nothing any more, now and later.
  void GiveUp() EXCLUDES(stateMutex_);

 private:
  // Keeps the record's state if the main thread waits for the record. True if the wait is over.
  bool NoteState(const App::BaseAppInfo& app) REQUIRES(stateMutex_);

  // What the main thread waits for: the record itself can move while it waits, for an erased record
  // makes the vector move those behind it. The first state that ends the wait is kept, whatever
  // becomes of the record before the main thread wakes up.
  struct AwaitedApp {
    std::string name;  // Empty: nobody waits.
    ProcessState state = ProcessState::STARTING;
  };

  Mutex stateMutex_ ACQUIRED_AFTER(baseAppMutex_);
  CondVar stateCond_;
  CondVar eventCond_;
  AwaitedApp awaited_ GUARDED_BY(stateMutex_);
  std::uint64_t events_ GUARDED_BY(stateMutex_) = 0;
  bool isGivenUp_ GUARDED_BY(stateMutex_) = false;
};

}  // namespace ProcMgr

#endif  // CORE_BRING_UP_HANDSHAKE_H
