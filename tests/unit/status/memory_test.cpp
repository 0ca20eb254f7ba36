// What the memory makes of what it is told.
#include "status/memory.h"

#include <malloc.h>
#include <sys/eventfd.h>

#include <functional>

#include "base/unique_fd.h"
#include "tests/support/test.h"

namespace ProcMgr::Status {
namespace {

constexpr int kKilled = SIGKILL;
constexpr int kDumped = SIGSEGV | 0x80;
constexpr int Exited(int value) {
  return value << 8;
}

AppFacts Facts(const std::string& name, AppKind kind, const std::string& policy = "no",
               bool isReporting = false) {
  AppFacts facts;
  facts.kind = kind;
  facts.isReporting = isReporting;
  facts.name = name;
  facts.policy = RestartPolicyOf(policy);
  return facts;
}

// "STATE [pid] [CAUSE: TEXT [-> ON]]; then the exits, newest first, and the restarts.
std::string Show(const AppPicture& app) {
  std::string text = WordOf(app.state);
  if (app.pid != 0) {
    text += " " + std::to_string(app.pid);
  }
  if (app.cause != nullptr) {
    text += ", " + std::string(WordOf(app.cause->what)) + ": " + app.cause->text;
    if (!app.cause->on.empty()) {
      text += " -> " + app.cause->on;
    }
  }
  if (app.exits != nullptr) {
    for (const Exit& exit : *app.exits) {
      text += "; " + std::to_string(exit.pid) + " " + WordOf(exit.how) + " " +
              std::to_string(exit.value) + " " + exit.text;
    }
  }
  if (app.restarts != 0) {
    text += "; restarts " + std::to_string(app.restarts);
  }
  return text;
}

using Feed = std::function<void(Memory&, AppId)>;

const Feed kStart = [](Memory& memory, AppId app) { memory.NoteStarted(app, 7); };
const Feed kStartAgain = [](Memory& memory, AppId app) { memory.NoteStarted(app, 8); };
const Feed kUp = [](Memory& memory, AppId app) { memory.NoteRunning(app); };
const Feed kLeave = [](Memory& memory, AppId app) { memory.NoteStopping(app, ""); };
const Feed kStop = [](Memory& memory, AppId app) { memory.NoteStopping(app, "hmi"); };
const Feed kRestart = [](Memory& memory, AppId app) { memory.NoteRestarting(app, "hmi"); };
const Feed kGiveUp = [](Memory& memory, AppId app) { memory.GiveUp(app); };
const Feed kEndForGood = [](Memory& memory, AppId app) { memory.NoteEndForGood(app); };
const Feed kDropRestarts = [](Memory& memory, AppId app) { memory.DropRestarts(app); };
const Feed kGone = [](Memory& memory, AppId app) { memory.NoteGone(app); };
Feed End(int status, bool isAccepted = false) {
  return
      [=](Memory& memory, AppId app) { memory.NoteExit(app, 7, status, isAccepted, std::nullopt); };
}
Feed NeverRan(int status, const std::string& lastWords) {
  return [=](Memory& memory, AppId app) { memory.NoteExit(app, 7, status, false, lastWords); };
}
Feed Refused(CauseKind what) {
  return [=](Memory& memory, AppId app) { memory.Refuse(app, what, "no"); };
}

TEST(Memory, StatesAndCausesFollowTheFeed) {
  const AppFacts once = Facts("x", AppKind::kBase);
  const AppFacts kept = Facts("x", AppKind::kBase, "on-failure");
  const AppFacts reporting = Facts("x", AppKind::kBase, "on-forever", true);
  const AppFacts general = Facts("x", AppKind::kGeneral, "on-failure");
  const AppFacts self = Facts("x", AppKind::kSelf);
  const std::string asked = ", request: hmi has asked for its ";
  const struct {
    AppFacts facts;
    std::vector<Feed> feed;
    std::string shown;
  } cases[] = {
      {once, {}, "waiting"},
      {once, {kStart}, "starting 7"},
      {reporting, {kStart}, "starting 7, report: it has not reported yet"},
      {reporting, {kStart, kUp}, "running 7"},
      // A report that has waited for the lock, while the process ended.
      {once, {kStart, End(Exited(3)), kUp}, "failed, exit: exit status 3; 7 exit 3 exit status 3"},
      {once, {kStart, End(kKilled)}, "failed, signal: SIGKILL; 7 signal 9 SIGKILL"},
      {once,
       {kStart, End(kDumped)},
       "failed, signal: SIGSEGV, core dumped; 7 core 11 SIGSEGV, core dumped"},
      {kept, {kStart, kUp, End(kKilled)}, "restarting, signal: SIGKILL; 7 signal 9 SIGKILL"},
      {kept, {kStart, End(kKilled), kStartAgain}, "starting 8; 7 signal 9 SIGKILL; restarts 1"},
      {kept,
       {kStart, End(kKilled), kGiveUp},
       "given-up, limit: its restarts are used up: 5 within 60 s; the last time: SIGKILL; 7 signal "
       "9 SIGKILL"},
      // The service goes by itself: its policy brings it back all the same.
      {kept,
       {kStart, kUp, kLeave, End(Exited(0))},
       "restarting, request: it has said that it goes down; 7 exit 0 exit status 0"},
      {once, {kStart, kUp, kLeave}, "stopping 7, request: it has said that it goes down"},
      // The manager goes, and brings nobody back.
      {kept,
       {kStart, kUp, kEndForGood, End(kKilled)},
       "ended, request: the manager is being stopped; 7 signal 9 SIGKILL"},
      {kept, {kStart, End(kKilled), kDropRestarts}, "failed, signal: SIGKILL; 7 signal 9 SIGKILL"},
      {kept, {kStart, kDropRestarts, kUp}, "running 7"},
      // Nobody restarts a general application by its policy.
      {general, {kStart, End(Exited(0))}, "failed, exit: exit status 0; 7 exit 0 exit status 0"},
      {general,
       {kStart, End(Exited(0), true)},
       "ended, exit: exit status 0; 7 exit 0 exit status 0"},
      {general, {kStart, kStop, End(kKilled)}, "ended" + asked + "end -> hmi; 7 signal 9 SIGKILL"},
      // The exit was filed before the request came.
      {general, {kStart, End(kKilled), kStop}, "ended" + asked + "end -> hmi; 7 signal 9 SIGKILL"},
      {general,
       {kStart, kUp, kRestart, End(kKilled)},
       "restarting" + asked + "restart -> hmi; 7 signal 9 SIGKILL"},
      {general,
       {kStart, kUp, kRestart, End(kKilled), kStartAgain, kUp},
       "running 8; 7 signal 9 SIGKILL; restarts 1"},
      // A stop that wasn't obeyed.
      {general, {kStart, kStop, kUp}, "running 7"},
      {general, {Refused(CauseKind::kDigest)}, "refused, digest: no"},
      {kept,
       {kStart, End(kKilled), Refused(CauseKind::kMissing), kGiveUp},
       "given-up, limit: its restarts are used up: 5 within 60 s; the last time: no; 7 signal 9 "
       "SIGKILL"},
      {once,
       {kStart, NeverRan(Exited(1), "exec failed, errno=2;")},
       "failed, exec: exec failed, errno=2;; 7 exec 1 exec failed, errno=2;"},
      {kept,
       {kStart, NeverRan(Exited(125), "")},
       "restarting, exec: it could not become its program; 7 exec 125 it could not become its "
       "program"},
      {self, {kStart, kUp, kGone}, "ended"},
  };
  for (const auto& c : cases) {
    Memory memory;
    const AppId app = memory.Mention(c.facts);
    for (const Feed& feed : c.feed) {
      feed(memory, app);
    }
    EXPECT_EQ(Show(memory.Copy().apps.at(0)), c.shown);
  }
}

TEST(Memory, AStateKeepsItsEntryTimeWhileItLasts) {
  Memory memory;
  const AppId app = memory.Mention(Facts("x", AppKind::kBase, "on-forever"));
  memory.Refuse(app, CauseKind::kMissing, "no");
  const WallTime since = memory.Copy().apps[0].since;
  while (std::chrono::system_clock::now() == since) {
  }
  memory.Refuse(app, CauseKind::kMissing, "no");
  memory.Refuse(app, CauseKind::kPermission, "neither");
  EXPECT_EQ(memory.Copy().apps[0].since, since);
  memory.NoteStarted(app, 7);
  EXPECT_GT(memory.Copy().apps[0].since, since);
}

TEST(Memory, TheLastEightExitsAreKeptNewestFirst) {
  Memory memory;
  const AppId app = memory.Mention(Facts("x", AppKind::kBase, "on-forever"));
  for (int i = 0; i < 20; ++i) {
    memory.NoteStarted(app, 100 + i);
    memory.NoteExit(app, 100 + i, Exited(i), false, std::nullopt);
  }
  const AppPicture picture = memory.Copy().apps[0];
  ASSERT_EQ(picture.exits->size(), 8U);
  EXPECT_EQ(picture.exits->front().pid, 119);
  EXPECT_EQ(picture.exits->back().value, 12);
  EXPECT_EQ(picture.restarts, 19U);
}

#ifndef PM_SANITIZED  // A sanitizer's allocator doesn't tell what it has given.
TEST(Memory, AnApplicationTakesFewBytes) {
  constexpr std::size_t kApps = 1000;
  Memory memory;
  const std::size_t before = mallinfo2().uordblks;
  for (std::size_t i = 0; i < kApps; ++i) {
    AppFacts facts = Facts("service-" + std::to_string(i), AppKind::kBase, "on-failure");
    facts.path = "/opt/platform/bin/" + facts.name;
    facts.depends = {"service-1", "service-2"};
    facts.startFile = SharedText("/etc/platform/services.yaml");
    const AppId app = memory.Mention(std::move(facts));
    memory.NoteStarted(app, 7);
    memory.NoteRunning(app);
  }
  EXPECT_LE((mallinfo2().uordblks - before) / kApps, 512U);
}
#endif

TEST(Memory, RestartsThatAreLeft) {
  const SteadyTime now = SteadyNow();
  const auto ago = [now](int ms) { return now - milliseconds(ms); };
  const struct {
    AppKind kind;
    const char* policy;
    std::deque<SteadyTime> times;
    std::optional<std::size_t> left;
  } cases[] = {
      {AppKind::kBase, "no", {}, 0},
      {AppKind::kBase, "on-until-succeed", {}, 0},
      {AppKind::kBase, "on-forever", {}, std::nullopt},
      {AppKind::kGeneral, "on-forever", {}, 0},
      {AppKind::kBase, "on-failure", {}, 5},
      {AppKind::kBase, "on-failure", {ago(60'001), ago(60'000), ago(1)}, 3},
      {AppKind::kBase, "on-failure", {ago(5), ago(4), ago(3), ago(2), ago(1)}, 0},
  };
  for (const auto& c : cases) {
    Memory memory;
    const AppId app = memory.Mention(Facts("x", c.kind, c.policy));
    memory.NoteRestartTimes(app, c.times);
    EXPECT_EQ(RestartsLeft(memory.Copy().apps[0], now), c.left) << c.policy << c.times.size();
  }
}

TEST(Memory, SpansAreOfTheBootAndOfFirstStarts) {
  Memory memory;
  memory.BeginBoot();
  memory.BeginPhase(Phase::kInit);
  memory.EndPhase(Phase::kInit);
  const AppId cam = memory.Mention(Facts("cam", AppKind::kBase, "on-failure", true));
  const AppId bad = memory.Mention(Facts("bad", AppKind::kBase));
  const AppId late = memory.Mention(Facts("late", AppKind::kGeneral));
  for (int start = 0; start < 2; ++start) {
    memory.BeginChecks(cam);
    memory.PassChecks(cam);
    memory.NoteStarted(cam, 7);
    memory.BeginPhase(Phase::kOpen, cam);
    memory.NoteExit(cam, 7, kKilled, false, std::nullopt);
  }
  memory.BeginChecks(bad);
  memory.Refuse(bad, CauseKind::kMissing, "no");
  memory.BeginPhase(Phase::kPause);
  EXPECT_FALSE(memory.CopyBoot().end);
  EXPECT_FALSE(memory.CopyBoot().spans.back().end);
  memory.EndPhase(Phase::kPause);
  memory.EndBoot();
  memory.BeginChecks(late);
  memory.PassChecks(late);

  const BootPicture boot = memory.CopyBoot();
  std::vector<std::string> spans;
  for (const Span& span : boot.spans) {
    spans.push_back((span.facts ? span.facts->name + " " : "") + WordOf(span.phase));
    EXPECT_TRUE(span.end && *span.end >= span.begin) << spans.back();
  }
  EXPECT_EQ(spans, (std::vector<std::string>{"init", "cam checks", "cam fork", "cam ready",
                                             "cam open", "bad checks", "pause"}));
  EXPECT_TRUE(boot.end && *boot.end >= *boot.spans.back().end);
}

TEST(Memory, NamesOfSeveralKindsStandBesideEachOtherAndIdleOnesAreForgotten) {
  Memory memory;
  const AppId base = memory.Mention(Facts("x", AppKind::kBase));
  const AppId general = memory.Mention(Facts("x", AppKind::kGeneral));
  memory.NoteStarted(general, 7);
  EXPECT_NE(base, general);
  EXPECT_EQ(memory.Mention(Facts("x", AppKind::kGeneral, "on-forever")), general);
  EXPECT_EQ(memory.Copy().apps.at(1).facts->policy, RestartPolicy::kOnForever);

  for (std::size_t i = 0; i <= Memory::kMostIdle; ++i) {
    (void)memory.Mention(Facts("idle" + std::to_string(i), AppKind::kGeneral));
  }
  const std::vector<AppPicture> apps = memory.Copy().apps;
  ASSERT_EQ(apps.size(), Memory::kMostIdle + 2);
  EXPECT_EQ(apps[1].pid, 7);
  EXPECT_EQ(apps[2].facts->name, "idle1");
  memory.NoteStarted(general + 1, 9);  // Forgotten: it is nobody's number any more.
  EXPECT_EQ(memory.Copy().apps.size(), apps.size());
}

class Watching : public Test {
 protected:
  bool IsAwake() const {
    eventfd_t count = 0;
    return eventfd_read(event_.Get(), &count) == 0;
  }

  UniqueFd event_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  Memory memory_;
  AppId app_ = memory_.Mention(Facts("x", AppKind::kBase, "on-forever"));
};

TEST_F(Watching, EveryChangeIsKeptInItsOrderAndTheFirstWakes) {
  memory_.NoteStarted(app_, 6);
  EXPECT_FALSE(IsAwake());
  Changes before;
  EXPECT_EQ(memory_.BeginWatch(event_.Get(), before).apps.at(0).pid, 6);
  EXPECT_TRUE(before.list.empty());
  memory_.NoteRunning(app_);
  memory_.NoteRunning(app_);  // No change.
  EXPECT_TRUE(IsAwake());
  memory_.NoteExit(app_, 6, kKilled, false, std::nullopt);
  memory_.Await(app_);
  EXPECT_FALSE(IsAwake());
  // Another watcher comes: what had changed by then is the first one's alone.
  EXPECT_EQ(memory_.BeginWatch(event_.Get(), before).apps.at(0).pid, 0);
  ASSERT_EQ(before.list.size(), 3U);
  EXPECT_EQ(before.list[0].app->state, AppState::kRunning);
  EXPECT_EQ(before.list[1].app->state, AppState::kRestarting);
  EXPECT_FALSE(before.list[2].app);
  EXPECT_EQ(before.list[2].manager.awaited->name, "x");
  EXPECT_TRUE(memory_.TakeChanges().list.empty());
  memory_.EndWatch();
  memory_.NoteStarted(app_, 7);
  EXPECT_FALSE(IsAwake());
  EXPECT_TRUE(memory_.TakeChanges().list.empty());
}

TEST_F(Watching, TooManyChangesAreAnOverrun) {
  Changes before;
  (void)memory_.BeginWatch(event_.Get(), before);
  for (std::size_t i = 0; i <= Memory::kMostChanges; ++i) {
    memory_.NoteStarted(app_, static_cast<pid_t>(i + 1));
  }
  const Changes changes = memory_.TakeChanges();
  EXPECT_EQ(changes.list.size(), Memory::kMostChanges);
  EXPECT_TRUE(changes.isOverrun);
  EXPECT_FALSE(memory_.TakeChanges().isOverrun);
}

}  // namespace
}  // namespace ProcMgr::Status
