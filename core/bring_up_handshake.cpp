#include "core/bring_up_handshake.h"

#include "base/may_wait.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

bool EndsTheWait(ProcessState state) {
  return state == ProcessState::RUNNING || state == ProcessState::TERMINATING ||
         state == ProcessState::TERMINATED;
}

// An end whose restart isn't decided yet is none to whoever awaits the service.
ProcessState StateOf(const App::BaseAppInfo& app) {
  return app.isDigestAwaited_ ? ProcessState::STARTING : app.state_;
}

}  // namespace

void BringUpHandshake::Step(App::BaseAppInfo& app) {
  const MutexLock lock(stateMutex_);
  app.state_ = app.CheckState();
}

void BringUpHandshake::TakeReport(App::BaseAppInfo& app, ProcessState state) {
  const MutexLock lock(stateMutex_);
  if (state == ProcessState::RUNNING || app.state_ != ProcessState::TERMINATED) {
    app.state_ = state;
  }
  (void)NoteState(app);
  stateCond_.NotifyAll();
}

void BringUpHandshake::PublishAwaited() {
  const MutexLock lock(stateMutex_);
  if (awaited_.name.empty()) {
    return;
  }
  const App::BaseAppInfo* const app = FindBaseApp(awaited_.name);
  if (app != nullptr && NoteState(*app)) {
    stateCond_.NotifyAll();
  }
}

void BringUpHandshake::Await(const std::string& name) {
  const App::BaseAppInfo* const app = FindBaseApp(name);
  const MutexLock lock(stateMutex_);
  // A record that has gone by now ended with no restart left.
  awaited_ = {name, app == nullptr ? ProcessState::TERMINATED : StateOf(*app)};
}

ProcessState BringUpHandshake::WaitForState() {
  MayWait("WaitForState");
  const MutexLock lock(stateMutex_);
  while (!EndsTheWait(awaited_.state) && !isGivenUp_) {
    LogInfo("PROCMGR: waiting for baseApp=%s reported state, RUNNING OR TERMINATING.",
            awaited_.name.c_str());
    stateCond_.Wait(stateMutex_);
  }
  const ProcessState state = awaited_.state;
  awaited_ = {};
  return state;
}

void BringUpHandshake::NoteEvent() {
  const MutexLock lock(stateMutex_);
  ++events_;
  eventCond_.NotifyAll();
}

std::uint64_t BringUpHandshake::Events() {
  const MutexLock lock(stateMutex_);
  return events_;
}

void BringUpHandshake::WaitForEvent(std::uint64_t seen, SteadyTime deadline) {
  MayWait("WaitForEvent");
  const MutexLock lock(stateMutex_);
  while (events_ == seen && !isGivenUp_ && eventCond_.WaitUntil(stateMutex_, deadline)) {
  }
}

void BringUpHandshake::GiveUp() {
  const MutexLock lock(stateMutex_);
  isGivenUp_ = true;
  stateCond_.NotifyAll();
  eventCond_.NotifyAll();
}

bool BringUpHandshake::NoteState(const App::BaseAppInfo& app) {
  if (awaited_.name != app.appName_ || EndsTheWait(awaited_.state)) {
    return false;
  }
  awaited_.state = StateOf(app);
  return EndsTheWait(awaited_.state);
}

}  // namespace ProcMgr
