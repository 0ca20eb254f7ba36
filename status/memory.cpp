#include "status/memory.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iterator>
#include <tuple>
#include <utility>

#include "base/immortal.h"

namespace ProcMgr::Status {
namespace {

using std::chrono::microseconds;

// The manager's own phases come first.
bool IsOfAnApp(Phase phase) {
  return phase >= Phase::kChecks;
}

std::size_t PlaceOf(Phase phase) {
  return static_cast<std::size_t>(phase);
}

WallTime WallNow() {
  return std::chrono::system_clock::now();
}

std::shared_ptr<const Cause> MakeCause(CauseKind what, std::string text, std::string on = {}) {
  return std::make_shared<const Cause>(Cause{what, std::move(text), std::move(on)});
}

bool IsSame(const Cause* left, const Cause* right) {
  return left == right || (left != nullptr && right != nullptr && left->what == right->what &&
                           left->text == right->text && left->on == right->on);
}

// Yields whether anything is new. A state that it is in already keeps its entry time.
bool Enter(AppPicture& app, AppState state, std::shared_ptr<const Cause> cause) {
  if (app.state == state && IsSame(app.cause.get(), cause.get())) {
    return false;
  }
  if (app.state != state) {
    app.since = WallNow();
  }
  app.state = state;
  app.cause = std::move(cause);
  return true;
}

bool IsSameApp(const AppFacts& left, const AppFacts& right) {
  return left.kind == right.kind && left.name == right.name;
}

bool ComesBack(const AppPicture& app) {
  const AppFacts& facts = *app.facts;
  return facts.kind == AppKind::kBase && !app.isRestartOver &&
         (facts.policy == RestartPolicy::kOnFailure || facts.policy == RestartPolicy::kOnForever);
}

Exit MakeExit(pid_t pid, int status, const std::optional<std::string>& lastWords) {
  constexpr int kSignalBits = 0x7f;
  Exit exit{WallNow(), pid, ExitKind::kExit, WEXITSTATUS(status), {}};
  if (const int signal = status & kSignalBits; signal != 0) {
    const char* const name = sigabbrev_np(signal);
    exit.how = WCOREDUMP(status) ? ExitKind::kCore : ExitKind::kSignal;
    exit.value = signal;
    exit.text = name == nullptr ? "signal " + std::to_string(signal) : std::string("SIG") + name;
    if (exit.how == ExitKind::kCore) {
      exit.text += ", core dumped";
    }
  } else if (lastWords) {
    exit.how = ExitKind::kExec;
    exit.text = lastWords->empty() ? "it could not become its program" : *lastWords;
  } else {
    exit.text = "exit status " + std::to_string(exit.value);
  }
  return exit;
}

std::shared_ptr<const Cause> CauseOf(const Exit& exit) {
  switch (exit.how) {
    case ExitKind::kExit:
      return MakeCause(CauseKind::kExit, exit.text);
    case ExitKind::kSignal:
    case ExitKind::kCore:
      return MakeCause(CauseKind::kSignal, exit.text);
    case ExitKind::kExec:
      return MakeCause(CauseKind::kExec, exit.text);
  }
  return nullptr;
}

void Keep(AppPicture& app, Exit exit) {
  auto exits = std::make_shared<std::vector<Exit>>();
  exits->reserve(kKeptExits);
  exits->push_back(std::move(exit));
  if (app.exits != nullptr) {
    const std::size_t more = std::min(app.exits->size(), kKeptExits - 1);
    exits->insert(exits->end(), app.exits->begin(),
                  app.exits->begin() + static_cast<std::ptrdiff_t>(more));
  }
  app.exits = std::move(exits);
}

// Where a process that was asked to go, or that may come back by its policy, has got to.
AppState StateBehindARequestedEnd(const AppPicture& app) {
  return ComesBack(app) ? AppState::kRestarting : AppState::kEnded;
}

void NoteExitIn(AppPicture& app, const Exit& exit, bool isSuccess) {
  switch (app.state) {
    case AppState::kRestarting:
      break;  // The new process is to come.
    case AppState::kStopping:
      (void)Enter(app, StateBehindARequestedEnd(app), app.cause);
      break;
    default:
      if (ComesBack(app)) {
        (void)Enter(app, AppState::kRestarting, CauseOf(exit));
      } else {
        (void)Enter(app, isSuccess ? AppState::kEnded : AppState::kFailed, CauseOf(exit));
      }
      break;
  }
}

}  // namespace

Memory& Memory::Instance() {
  return Immortal<Memory>();
}

template <typename Function>
void Memory::Apply(AppId app, Function change) {
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(app);
  if (entry != entries_.end() && change(entry->second)) {
    Tell(&entry->second.picture);
  }
}

void Memory::BeginBoot() {
  const MutexLock lock(mutex_);
  manager_.since = WallNow();
  begin_ = SteadyNow();
}

void Memory::EndBoot() {
  const MutexLock lock(mutex_);
  end_ = SinceBegin();
  manager_.isBootDone = true;
  Tell(nullptr);
}

void Memory::Await(AppId app) {
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(app);
  manager_.awaited = entry == entries_.end() ? nullptr : entry->second.picture.facts;
  manager_.awaitedSince = WallNow();
  Tell(nullptr);
}

void Memory::BeginPhase(Phase phase, AppId app) {
  const MutexLock lock(mutex_);
  if (!IsOfAnApp(phase)) {
    Open(phase, 0, openPhases_[PlaceOf(phase)]);
    return;
  }
  const auto entry = entries_.find(app);
  if (entry != entries_.end() && entry->second.isFirstStart) {
    Open(phase, app, entry->second.OpenSpan(phase));
  }
}

void Memory::EndPhase(Phase phase, AppId app) {
  const MutexLock lock(mutex_);
  if (!IsOfAnApp(phase)) {
    Close(openPhases_[PlaceOf(phase)]);
    return;
  }
  const auto entry = entries_.find(app);
  if (entry != entries_.end()) {
    Close(entry->second.OpenSpan(phase));
  }
}

AppId Memory::Mention(AppFacts facts) {
  const auto shared = std::make_shared<AppFacts>(std::move(facts));
  const MutexLock lock(mutex_);
  if (lastMentioned_ != nullptr) {
    shared->owner.ShareWith(lastMentioned_->owner);
    shared->startFile.ShareWith(lastMentioned_->startFile);
  }
  lastMentioned_ = shared;
  const auto place = PlaceOfName(*shared);
  if (place != byName_.end() && IsSameApp(FactsOf(*place), *shared)) {
    entries_.find(*place)->second.picture.facts = shared;
    return *place;
  }
  const AppId id = ++lastId_;
  Entry& entry = entries_[id];
  entry.picture.facts = shared;
  entry.picture.since = WallNow();
  byName_.insert(place, id);
  if (shared->kind != AppKind::kBase) {
    ++idle_;
    ForgetIdle();
  }
  Tell(&entry.picture);
  return id;
}

void Memory::LeaveOut(AppId app, std::string text) {
  Apply(app, [cause = MakeCause(CauseKind::kOption, std::move(text))](Entry& entry) {
    return Enter(entry.picture, AppState::kLeftOut, cause);
  });
}

void Memory::Block(AppId app, std::string on, std::string text) {
  Apply(app, [cause = MakeCause(CauseKind::kDependency, std::move(text), std::move(on))](
                 Entry& entry) { return Enter(entry.picture, AppState::kBlocked, cause); });
}

void Memory::BeginChecks(AppId app) {
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(app);
  if (entry == entries_.end() || entry->second.isSpanned) {
    return;
  }
  entry->second.isSpanned = true;
  entry->second.isFirstStart = true;
  Open(Phase::kChecks, app, entry->second.OpenSpan(Phase::kChecks));
}

void Memory::PassChecks(AppId app) {
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(app);
  if (entry == entries_.end() || !entry->second.isFirstStart) {
    return;
  }
  Close(entry->second.OpenSpan(Phase::kChecks));
  Open(Phase::kFork, app, entry->second.OpenSpan(Phase::kFork));
}

void Memory::Refuse(AppId app, CauseKind what, std::string text) {
  Apply(app, [this, cause = MakeCause(what, std::move(text))](Entry& entry) REQUIRES(mutex_) {
    CloseAll(entry);
    return Enter(entry.picture, AppState::kRefused, cause);
  });
}

void Memory::RefuseRequest(AppId app, CauseKind what, std::string text) {
  Apply(app, [cause = MakeCause(what, std::move(text))](Entry& entry) {
    return entry.picture.pid == 0 && Enter(entry.picture, AppState::kRefused, cause);
  });
}

void Memory::NoteStarted(AppId app, pid_t pid) {
  Apply(app, [this, app, pid](Entry& entry) REQUIRES(mutex_) {
    static const std::shared_ptr<const Cause> unreported =
        MakeCause(CauseKind::kReport, "it has not reported yet");
    AppPicture& picture = entry.picture;
    const bool isBase = picture.facts->kind == AppKind::kBase;
    if (isBase ? picture.forked != SteadyTime{} : picture.state == AppState::kRestarting) {
      ++picture.restarts;
    }
    SetPid(entry, pid);
    picture.forked = SteadyNow();
    picture.readyIn = microseconds(-1);
    Close(entry.OpenSpan(Phase::kFork));
    if (entry.isFirstStart) {
      Open(Phase::kReady, app, entry.OpenSpan(Phase::kReady));
    }
    (void)Enter(picture, AppState::kStarting, picture.facts->isReporting ? unreported : nullptr);
    return true;
  });
}

void Memory::NoteRunning(AppId app) {
  Apply(app, [this](Entry& entry) REQUIRES(mutex_) {
    AppPicture& picture = entry.picture;
    if (picture.pid == 0) {
      return false;
    }
    if (picture.readyIn.count() < 0 && picture.facts->kind != AppKind::kSelf) {
      picture.readyIn = std::chrono::duration_cast<microseconds>(SteadyNow() - picture.forked);
    }
    Close(entry.OpenSpan(Phase::kReady));
    return Enter(picture, AppState::kRunning, nullptr);
  });
}

void Memory::NoteStopping(AppId app, std::string by) {
  std::string text = by.empty() ? "it has said that it goes down" : by + " has asked for its end";
  Apply(app, [cause =
                  MakeCause(CauseKind::kRequest, std::move(text), std::move(by))](Entry& entry) {
    AppPicture& picture = entry.picture;
    return Enter(picture,
                 picture.pid == 0 ? StateBehindARequestedEnd(picture) : AppState::kStopping, cause);
  });
}

void Memory::NoteRestarting(AppId app, std::string by) {
  std::string text = by + " has asked for its restart";
  Apply(app, [cause = MakeCause(CauseKind::kRequest, std::move(text), std::move(by))](
                 Entry& entry) { return Enter(entry.picture, AppState::kRestarting, cause); });
}

void Memory::NoteEndForGood(AppId app) {
  Apply(app, [](Entry& entry) {
    AppPicture& picture = entry.picture;
    picture.isRestartOver = true;
    return Enter(picture, picture.pid == 0 ? AppState::kEnded : AppState::kStopping,
                 MakeCause(CauseKind::kRequest, "the manager is being stopped"));
  });
}

void Memory::DropRestarts(AppId app) {
  Apply(app, [](Entry& entry) {
    AppPicture& picture = entry.picture;
    picture.isRestartOver = true;
    return picture.pid == 0 && picture.state == AppState::kRestarting &&
           Enter(picture, AppState::kFailed, picture.cause);
  });
}

void Memory::NoteExit(AppId app, pid_t pid, int status, bool isSuccess,
                      const std::optional<std::string>& lastWords) {
  Apply(app, [&, this](Entry& entry) REQUIRES(mutex_) {
    const Exit exit = MakeExit(pid, status, lastWords);
    SetPid(entry, 0);
    CloseAll(entry);
    Keep(entry.picture, exit);
    NoteExitIn(entry.picture, exit, isSuccess);
    return true;
  });
}

void Memory::NoteRestartTimes(AppId app, const std::deque<SteadyTime>& times) {
  const std::size_t count = std::min(times.size(), kMostRestarts);
  auto kept = std::make_shared<const std::vector<SteadyTime>>(
      times.begin(), times.begin() + static_cast<std::ptrdiff_t>(count));
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(app);
  if (entry != entries_.end()) {
    entry->second.picture.restartTimes = std::move(kept);
  }
}

void Memory::GiveUp(AppId app) {
  Apply(app, [](Entry& entry) {
    AppPicture& picture = entry.picture;
    std::string text =
        "its restarts are used up: " + std::to_string(kMostRestarts) + " within " +
        std::to_string(std::chrono::floor<std::chrono::seconds>(kRestartWindow).count()) + " s";
    if (picture.cause != nullptr) {
      text += "; the last time: " + picture.cause->text;
    }
    picture.isRestartOver = true;
    return Enter(picture, AppState::kGivenUp, MakeCause(CauseKind::kLimit, std::move(text)));
  });
}

void Memory::NoteGone(AppId app) {
  Apply(app, [this](Entry& entry) REQUIRES(mutex_) {
    SetPid(entry, 0);
    return Enter(entry.picture, AppState::kEnded, nullptr);
  });
}

// The place of a span that is open is kept, so that its end finds it.
void Memory::Open(Phase phase, AppId app, std::uint32_t& place) {
  if (manager_.isBootDone || spans_.size() >= kMostSpans) {
    return;
  }
  Close(place);
  spans_.push_back({app, phase, SinceBegin(), microseconds(-1)});
  place = static_cast<std::uint32_t>(spans_.size());
}

void Memory::Close(std::uint32_t& place) {
  if (place != 0) {
    spans_[std::exchange(place, 0U) - 1].end = SinceBegin();
  }
}

void Memory::CloseAll(Entry& entry) {
  entry.isFirstStart = false;
  for (std::uint32_t& place : entry.openSpans) {
    Close(place);
  }
}

microseconds Memory::SinceBegin() const {
  return std::chrono::duration_cast<microseconds>(SteadyNow() - begin_);
}

const AppFacts& Memory::FactsOf(AppId app) const {
  return *entries_.find(app)->second.picture.facts;
}

std::vector<AppId>::iterator Memory::PlaceOfName(const AppFacts& facts) {
  return std::lower_bound(byName_.begin(), byName_.end(), facts,
                          [this](AppId app, const AppFacts& wanted) REQUIRES(mutex_) {
                            const AppFacts& known = FactsOf(app);
                            return std::tie(known.name, known.kind) <
                                   std::tie(wanted.name, wanted.kind);
                          });
}

void Memory::SetPid(Entry& entry, pid_t pid) {
  if (entry.picture.facts->kind != AppKind::kBase) {
    // With another pid in place of one it counts as neither more nor less.
    idle_ += static_cast<std::size_t>(entry.picture.pid != 0);
    idle_ -= static_cast<std::size_t>(pid != 0);
  }
  entry.picture.pid = pid;
}

void Memory::ForgetIdle() {
  if (idle_ <= kMostIdle) {
    return;
  }
  const auto victim = std::find_if(entries_.begin(), entries_.end(), [](const auto& entry) {
    return entry.second.picture.pid == 0 && entry.second.picture.facts->kind != AppKind::kBase;
  });
  byName_.erase(PlaceOfName(*victim->second.picture.facts));
  entries_.erase(victim);
  --idle_;
}

}  // namespace ProcMgr::Status
