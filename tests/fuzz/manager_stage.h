// A process without threads, children or a clock, for a whole manager: everything runs on the one
// thread of the target, in an order that the input decides.
//
// Linked in the place of what would make it otherwise: the manager's own workers and crews, its
// keeper, the start of a process, signals, waiting, sleeping and the steady clock. No child is ever
// made, no signal ever sent, and no pid that is handed out can be one of this machine.
//
// The main thread of the manager is the target's. Where it would wait (on a condition variable, or
// asleep) `idle` is called instead, and does something for which it may have waited.
#ifndef TESTS_FUZZ_MANAGER_STAGE_H
#define TESTS_FUZZ_MANAGER_STAGE_H

#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/crew.h"
#include "base/steady_time.h"
#include "message/closings.h"
#include "message/outbox.h"
#include "message/serialization.h"

namespace PmTest {

enum class ChildState { kUp, kStopped, kZombie, kReaped };

struct Child {
  std::string name;
  ChildState state = ChildState::kUp;
  int code = 0;  // CLD_*, and how it ended.
  int status = 0;
  bool isToldToEnd = false;
};

// The threads of the manager, in the order in which it starts them.
enum class Turn : std::size_t { kCheck = 0, kReaper = 1, kSignals = 2 };

struct ManagerStage {
  static constexpr pid_t kFirstPid = (1 << 22) + 1;  // Above every kernel's limit.

  std::function<void()> idle;
  ProcMgr::SteadyTime now{std::chrono::hours(1)};

  // The bodies of the workers; one runs only in TakeTurn, up to where it waits.
  std::vector<std::function<void()>> workers;
  bool isTurn = false;
  bool isSignalPending = false;  // The one that asks for an orderly stop.
  bool isCallback = false;  // A callback of the messaging library runs, which may wait for a while.
  void TakeTurn(Turn turn);

  // What waits for a thread of a crew, oldest first.
  struct Job {
    const ProcMgr::Crew* crew = nullptr;
    std::function<void()> run;
  };
  std::deque<Job> jobs;

  std::map<pid_t, Child> children;
  pid_t nextPid = kFirstPid;    // The next number, if no process has it.
  bool isSpawnRefused = false;  // The next start fails.
  void End(Child& child, int code, int status);

  // The keeper's, and what it is asked to send: told before it is tried. What `onSending` yields
  // takes the place of the outcome; it may change the frames.
  ProcMgr::Outbox outbox;
  ProcMgr::Closings closings;
  bool KeeperTurn();  // Yields whether anything still waits for room.
  std::function<ProcMgr::SendOutcome(int fd, ProcMgr::Serialization::PieceList& pieces,
                                     ProcMgr::SendOutcome outcome)>
      onSending;
  std::function<ProcMgr::SendOutcome(int fd, std::uint32_t seq, std::string_view text,
                                     ProcMgr::SendOutcome outcome)>
      onResponding;
};

// The one that plays; there is one while an input runs.
extern ManagerStage* managerStage;

}  // namespace PmTest

#endif  // TESTS_FUZZ_MANAGER_STAGE_H
