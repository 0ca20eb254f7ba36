// The manager's memory of what became of every application.
//
// The engine tells it, with one call at each place where it decides something; the status service
// asks it. Nothing here looks at the lists of the engine or at a process, so a picture costs the
// engine nothing but the lock, and an application whose record has gone, or that never had one, is
// still there.
//
// An application is known by the number that Mention yields. Every other call with 0, or with a
// number that has been forgotten, does nothing.
//
// Any thread. The lock is a leaf, and held for copies alone: the engine calls under the lock of a
// list. Nothing waits. Without a watcher no call but Mention allocates more than a cause, an
// exit or the times of restarts. Without those an application with a path and two dependencies
// takes 512 bytes, if its owner or its start file is that of the application mentioned before it
// too.
#ifndef STATUS_MEMORY_H
#define STATUS_MEMORY_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "status/picture.h"

namespace ProcMgr::Status {

// A state that a watcher is to hear of.
struct Change {
  ManagerPicture manager;
  std::optional<AppPicture> app;  // None: the manager's own has changed.
};

struct Changes {
  std::vector<Change> list;  // Oldest first.
  bool isOverrun = false;    // There were too many: some are missing.
};

class Memory {
 public:
  // Of the general and self-reported applications without a process, so many are remembered; the
  // first mentioned are forgotten first.
  static constexpr std::size_t kMostIdle = 4096;
  // So many changes wait for the service at most; if there are more, it takes the whole picture.
  static constexpr std::size_t kMostChanges = 8192;
  static constexpr std::size_t kMostSpans = 65536;

  // The manager's own. Never destroyed.
  static Memory& Instance();

  // The boot. BeginBoot is the manager's start, from which the spans are counted.
  void BeginBoot() EXCLUDES(mutex_);
  void EndBoot() EXCLUDES(mutex_);
  // The service whose channel or report the boot waits for from now on; 0 for none.
  void Await(AppId app) EXCLUDES(mutex_);
  // A phase of the manager's own, or with `app` of an application's first start. Spans begin only
  // while the boot runs.
  void BeginPhase(Phase phase, AppId app = 0) EXCLUDES(mutex_);
  void EndPhase(Phase phase, AppId app = 0) EXCLUDES(mutex_);

  // Somebody asks for the application, or a file names it. Yields its number: the one that it had,
  // if its kind and name are known, with the facts replaced by these.
  [[nodiscard]] AppId Mention(AppFacts facts) EXCLUDES(mutex_);

  // It will not be started: this boot doesn't ask for it, or `on` isn't running.
  void LeaveOut(AppId app, std::string text) EXCLUDES(mutex_);
  void Block(AppId app, std::string on, std::string text) EXCLUDES(mutex_);
  // The checks before a start: what they cost is a span, and whatever follows them is the fork.
  void BeginChecks(AppId app) EXCLUDES(mutex_);
  void PassChecks(AppId app) EXCLUDES(mutex_);
  // A check, or the fork itself, said no.
  void Refuse(AppId app, CauseKind what, std::string text) EXCLUDES(mutex_);
  // What a request asks for can't be done. Unlike Refuse it counts only if there is no process.
  void RefuseRequest(AppId app, CauseKind what, std::string text) EXCLUDES(mutex_);

  void NoteStarted(AppId app, pid_t pid) EXCLUDES(mutex_);
  // It is seen alive, or has reported. Doesn't count without a process.
  void NoteRunning(AppId app) EXCLUDES(mutex_);
  // Somebody, or with an empty `by` the application itself, has asked for its end or restart.
  void NoteStopping(AppId app, std::string by) EXCLUDES(mutex_);
  void NoteRestarting(AppId app, std::string by) EXCLUDES(mutex_);
  // It is asked to end because the manager ends; and nobody restarts it any more, however it ends.
  void NoteEndForGood(AppId app) EXCLUDES(mutex_);
  void DropRestarts(AppId app) EXCLUDES(mutex_);
  // The wait status of its process. `isSuccess`: it has done its work.
  // `lastWords`: it has ended before it became its program, and that is why.
  void NoteExit(AppId app, pid_t pid, int status, bool isSuccess,
                const std::optional<std::string>& lastWords) EXCLUDES(mutex_);
  // The restarts that count against the limit, oldest first.
  void NoteRestartTimes(AppId app, const std::deque<SteadyTime>& times) EXCLUDES(mutex_);
  // Its restarts are used up.
  void GiveUp(AppId app) EXCLUDES(mutex_);
  // A self-reported process isn't there any more; how it ended nobody knows.
  void NoteGone(AppId app) EXCLUDES(mutex_);

  [[nodiscard]] Picture Copy() EXCLUDES(mutex_);
  [[nodiscard]] BootPicture CopyBoot() EXCLUDES(mutex_);

  // From now on changes are kept, and `eventFd` (borrowed, non-blocking) is written when the first
  // of them waits to be taken. Yields the picture, and in `before` what waited already.
  [[nodiscard]] Picture BeginWatch(int eventFd, Changes& before) EXCLUDES(mutex_);
  void EndWatch() EXCLUDES(mutex_);
  // The changes since the last call.
  [[nodiscard]] Changes TakeChanges() EXCLUDES(mutex_);

 private:
  struct Entry {
    [[no_unique_address]] AppPicture picture;  // What follows may lie in the room at its end.
    bool isSpanned = false;                    // Its first start has been begun.
    bool isFirstStart = false;                 // That start is under way.
    // The place in spans_ and 1, 0 for none. The checks, the fork and the way to ready follow each
    // other and take the first; the opening goes on beside them.
    std::array<std::uint32_t, 2> openSpans{};

    [[nodiscard]] std::uint32_t& OpenSpan(Phase phase) {
      return openSpans[phase == Phase::kOpen ? 1 : 0];
    }
  };
  struct RawSpan {
    AppId app = 0;
    Phase phase = Phase::kInit;
    std::chrono::microseconds begin{0};
    std::chrono::microseconds end{-1};
  };

  // Has `change` work on the entry; if that yields true, it is told to the watcher.
  template <typename Function>
  void Apply(AppId app, Function change) EXCLUDES(mutex_);
  void Tell(const AppPicture* app) REQUIRES(mutex_);

  void Open(Phase phase, AppId app, std::uint32_t& place) REQUIRES(mutex_);
  void Close(std::uint32_t& place) REQUIRES(mutex_);
  void CloseAll(Entry& entry) REQUIRES(mutex_);
  [[nodiscard]] std::chrono::microseconds SinceBegin() const REQUIRES(mutex_);
  [[nodiscard]] const AppFacts& FactsOf(AppId app) const REQUIRES(mutex_);
  // Where one of that name and kind stands in byName_, or is to stand.
  [[nodiscard]] std::vector<AppId>::iterator PlaceOfName(const AppFacts& facts) REQUIRES(mutex_);
  void SetPid(Entry& entry, pid_t pid) REQUIRES(mutex_);
  void ForgetIdle() REQUIRES(mutex_);
  [[nodiscard]] Picture CopyLocked() const REQUIRES(mutex_);

  Mutex mutex_;
  ManagerPicture manager_ GUARDED_BY(mutex_);
  SteadyTime begin_ GUARDED_BY(mutex_){};
  std::optional<std::chrono::microseconds> end_ GUARDED_BY(mutex_);
  AppId lastId_ GUARDED_BY(mutex_) = 0;
  std::map<AppId, Entry> entries_ GUARDED_BY(mutex_);  // In the order of their first mention.
  // All of them, in the order of their names and kinds.
  std::vector<AppId> byName_ GUARDED_BY(mutex_);
  std::shared_ptr<const AppFacts> lastMentioned_ GUARDED_BY(mutex_);
  std::size_t idle_ GUARDED_BY(mutex_) = 0;  // General and self-reported, without a process.
  std::vector<RawSpan> spans_ GUARDED_BY(mutex_);
  std::array<std::uint32_t, 4> openPhases_ GUARDED_BY(mutex_){};  // The manager's own.

  int watchFd_ GUARDED_BY(mutex_) = -1;  // -1: nobody watches.
  Changes changes_ GUARDED_BY(mutex_);
};

// A phase of the manager's own, for as long as this lives.
class PhaseScope {
 public:
  explicit PhaseScope(Phase phase) : phase_(phase) { Memory::Instance().BeginPhase(phase); }
  ~PhaseScope() { Memory::Instance().EndPhase(phase_); }
  PhaseScope(const PhaseScope&) = delete;
  PhaseScope& operator=(const PhaseScope&) = delete;

 private:
  const Phase phase_;
};

// The boot waits for a service, for as long as this lives.
class AwaitScope {
 public:
  explicit AwaitScope(AppId app) { Memory::Instance().Await(app); }
  ~AwaitScope() { Memory::Instance().Await(0); }
  AwaitScope(const AwaitScope&) = delete;
  AwaitScope& operator=(const AwaitScope&) = delete;
};

}  // namespace ProcMgr::Status

#endif  // STATUS_MEMORY_H
