#include "tests/fuzz/manager_stage.h"

#include <pthread.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include "app/spawn.h"
#include "base/may_wait.h"
#include "base/sleep.h"
#include "core/stop_request.h"
#include "core/worker.h"
#include "message/keeper.h"
#include "tests/fuzz/fuzz_input.h"

namespace PmTest {

ManagerStage* managerStage = nullptr;

namespace {

// Leaves a worker's body where the worker would wait.
struct TurnIsOver {};

Child& ChildOf(pid_t pid) {
  const auto child = managerStage->children.find(pid);
  Require(child != managerStage->children.end());
  return child->second;
}

void Describe(pid_t pid, int code, int status, siginfo_t* info) {
  info->si_pid = pid;
  info->si_code = code;
  info->si_status = status;
}

// A look at one child, which a record takes at its process.
int Probe(pid_t pid, siginfo_t* info) {
  const Child& child = ChildOf(pid);
  if (child.state == ChildState::kReaped) {
    errno = ECHILD;
    return -1;
  }
  *info = siginfo_t{};
  if (child.state == ChildState::kZombie) {
    Describe(pid, child.code, child.status, info);
  } else if (child.state == ChildState::kStopped) {
    Describe(pid, CLD_STOPPED, SIGSTOP, info);
  }
  return 0;
}

int WaitForAny(siginfo_t* info) {
  for (const auto& [pid, child] : managerStage->children) {
    if (child.state == ChildState::kZombie) {
      Describe(pid, child.code, child.status, info);
      return 0;
    }
  }
  throw TurnIsOver();
}

// What a wait of the main thread is for may come now. A callback waits for its time alone.
int WaitOnCondition(pthread_mutex_t* mutex, const timespec* deadline) {
  Require(managerStage != nullptr && !managerStage->isTurn);
  if (managerStage->isCallback) {
    Require(deadline != nullptr);
    managerStage->now = std::max(managerStage->now,
                                 ProcMgr::SteadyTime(std::chrono::seconds(deadline->tv_sec) +
                                                     std::chrono::nanoseconds(deadline->tv_nsec)));
    return ETIMEDOUT;
  }
  (void)pthread_mutex_unlock(mutex);
  managerStage->idle();
  (void)pthread_mutex_lock(mutex);
  return 0;
}

}  // namespace

void ManagerStage::TakeTurn(Turn turn) {
  const auto index = static_cast<std::size_t>(turn);
  if (index >= workers.size()) {
    return;
  }
  isTurn = true;
  try {
    workers[index]();
  } catch (const TurnIsOver&) {
    isTurn = false;
  }
  Require(!isTurn);
}

void ManagerStage::End(Child& child, int code, int status) {
  child.state = ChildState::kZombie;
  child.code = code;
  child.status = status;
}

bool ManagerStage::KeeperTurn() {
  const bool isSending = outbox.TryWaiting();
  (void)closings.TryDue(now);
  return isSending;
}

}  // namespace PmTest

using PmTest::managerStage;
using PmTest::Require;

// The steady clock of this program. What it measures is the input's to decide.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return managerStage == nullptr ? time_point() : managerStage->now;
}

// libc's, as far as the manager calls them. The headers' names for the parameters are libc's own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int pthread_cond_wait(pthread_cond_t* /*cond*/, pthread_mutex_t* mutex) {
  return PmTest::WaitOnCondition(mutex, nullptr);
}

int pthread_cond_clockwait(pthread_cond_t* /*cond*/, pthread_mutex_t* mutex, clockid_t /*clock*/,
                           const timespec* deadline) {
  return PmTest::WaitOnCondition(mutex, deadline);
}

int kill(pid_t pid, int signal) noexcept {
  PmTest::Child& child = PmTest::ChildOf(pid);
  Require(child.state != PmTest::ChildState::kReaped);
  child.isToldToEnd = true;
  if (signal == SIGKILL && child.state != PmTest::ChildState::kZombie) {
    managerStage->End(child, CLD_KILLED, SIGKILL);
  }
  return 0;
}

int waitid(idtype_t type, id_t id, siginfo_t* info, int /*options*/) {
  return type == P_PID ? PmTest::Probe(static_cast<pid_t>(id), info) : PmTest::WaitForAny(info);
}

pid_t waitpid(pid_t pid, int* /*status*/, int /*options*/) {
  PmTest::Child& child = PmTest::ChildOf(pid);
  Require(child.state == PmTest::ChildState::kZombie);
  child.state = PmTest::ChildState::kReaped;
  return pid;
}

// The only one that comes asks for the orderly stop.
int sigwaitinfo(const sigset_t* /*signals*/, siginfo_t* /*info*/) {
  if (!std::exchange(managerStage->isSignalPending, false)) {
    throw PmTest::TurnIsOver();
  }
  return ProcMgr::StopSignal();
}

// Only the digest of a program is worked out like that, and no digests are listed.
FILE* popen(const char* /*command*/, const char* /*modes*/) {
  Require(false);
  return nullptr;
}

int sigtimedwait(const sigset_t* /*signals*/, siginfo_t* /*info*/, const timespec* /*timeout*/) {
  errno = EAGAIN;
  return -1;
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace ProcMgr {

// base/sleep.h, base/crew.h
void SleepNs(std::int64_t nanoseconds) {
  MayWait("SleepNs");
  if (managerStage->isTurn) {
    throw PmTest::TurnIsOver();
  }
  managerStage->now += std::chrono::nanoseconds(nanoseconds);
  managerStage->idle();
}

void Crew::Run(std::function<void()> job) {
  managerStage->jobs.push_back({this, std::move(job)});
}

Crew::~Crew() {
  for (PmTest::ManagerStage::Job& job : managerStage->jobs) {
    if (job.crew == this) {
      job.run();
    }
  }
  std::erase_if(managerStage->jobs, [this](const auto& job) { return job.crew == this; });
}

// core/worker.h
class Worker::End {};

void Worker::Start(const std::atomic<bool>& /*running*/, std::function<void()> body) {
  managerStage->workers.push_back(std::move(body));
}

void Worker::WakeAndJoin() {}

void InstallWakeHandler() {}

// app/spawn.h
pid_t App::Spawn(const App::LaunchPlan& plan) {
  if (std::exchange(managerStage->isSpawnRefused, false)) {
    return -EAGAIN;
  }
  std::map<pid_t, PmTest::Child>& children = managerStage->children;
  pid_t pid = 0;
  do {
    pid = managerStage->nextPid++;
  } while (children.contains(pid) && children[pid].state != PmTest::ChildState::kReaped);
  children[pid] = {plan.config.appName};
  return pid;
}

// message/keeper.h
void StartKeeper() {}

int SendInOrder(int fd, const Serialization::PieceList& pieces, SendOutcome outcome) {
  Serialization::PieceList sent = pieces;
  outcome = managerStage->onSending(fd, sent, std::move(outcome));
  OutgoingMessage message;
  for (const Message::RequestMsg& frame : sent) {
    message.frames.emplace_back(reinterpret_cast<const char*>(&frame), sizeof(frame));
  }
  return managerStage->outbox.Send(fd, message, std::move(outcome));
}

int RespondInOrder(int fd, std::uint32_t seq, std::string_view text, SendOutcome outcome) {
  outcome = managerStage->onResponding(fd, seq, text, std::move(outcome));
  return managerStage->outbox.Send(fd, {.isResponse = true, .seq = seq, .frames = {text}},
                                   std::move(outcome));
}

void CloseInTime(Closing closing) {
  (void)managerStage->closings.Close(std::move(closing), managerStage->now);
}

}  // namespace ProcMgr
