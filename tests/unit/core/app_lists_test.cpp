#include "core/app_lists.h"

#include "sandbox/process_table.h"
#include "sandbox/wait.h"
#include "tests/support/children.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_shortage.h"

namespace ProcMgr {
namespace {

using enum ProcessState;
using Lines = std::vector<std::string>;

SteadyTime At(int seconds) {
  return SteadyTime{} + std::chrono::seconds(seconds);
}

// How many more allocations of this thread succeed before the one that doesn't.
thread_local int allocationsLeft = 0;
bool IsTheOne() {
  return allocationsLeft-- == 0;
}

class AppLists : public ::testing::Test {
 protected:
  ~AppLists() override {
    const MutexLock general(generalAppMutex_);
    const MutexLock base(baseAppMutex_);
    // All of them, those too whose record a failed test has not come to make.
    for (const pid_t child : PmSandbox::Children(getpid(), false)) {
      EXPECT_TRUE(PmSandbox::KillAndAwait(child));
    }
    for (const GeneralAppPtr& app : GeneralAppsInOrder()) {
      app->state_ = TERMINATED;
    }
    RemoveTerminatedGeneralApps();
    RemoveAllBaseApps();
  }

  static void RemoveAllBaseApps() REQUIRES(baseAppMutex_) {
    RemoveBaseApps([](const App::BaseAppInfo&) { return true; });
  }

  static GeneralAppPtr Record(const std::string& name) {
    auto app = std::make_shared<App::GeneralAppInfo>();
    app->appName_ = name;
    app->execPath_ = "/bin/sleep";
    app->arguments_ = {"1000"};
    return app;
  }

  static void End(pid_t pid) {
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(PmSandbox::Kill(pid));
    EXPECT_EQ(PmTest::Reap(pid), SIGKILL);
  }

  // Whom an exit of `pid` that is seen at `limit` belongs to; both lists are asked as the reaper
  // asks them.
  static std::string OwnerOf(pid_t pid, SteadyTime limit = SteadyTime::max()) {
    const MutexLock general(generalAppMutex_);
    const MutexLock base(baseAppMutex_);
    const std::string name = FindGeneralAppByPid(pid, limit);
    const std::size_t index = FindBaseAppByPid(pid, limit);
    return index < executedBaseApp_.size() ? executedBaseApp_[index].appName_ : name;
  }

  PmTest::LogCapture log_;
};

TEST_F(AppLists, AnExitGoesToTheOldestRecordThatAwaitsOne) {
  struct Claim {
    int start;
    ProcessState state = RUNNING;
    bool isExited = false;
    bool isOther = false;  // Has another pid.
  };
  struct {
    std::optional<Claim> general;
    std::vector<Claim> base;
    std::string owner;
  } const rows[] = {
      {{}, {}, ""},
      {{{5}}, {}, "general"},
      {{{5}}, {{7}}, "general"},
      {{{5}}, {{3}}, "base0"},
      {{{5}}, {{5}}, "general"},  // Asked first; only an older start displaces it.
      {{}, {{7}, {3}, {5}}, "base1"},
      // What started at the moment of the exit, or behind it, is another process.
      {{{10}}, {{11}}, ""},
      {{{9}}, {{10}}, "general"},
      // Records whose pid is history.
      {{{5, TERMINATED}}, {{7}}, "base0"},
      {{{5, RUNNING, true}}, {{7}}, "base0"},
      {{{5}}, {{3, TERMINATED}}, "general"},
      {{{5}}, {{3, RUNNING, true}, {4, STARTING}}, "base1"},
      {{{5}}, {{3, RUNNING, false, true}}, "general"},
  };
  const GeneralAppPtr general = Record("general");
  {
    const MutexLock lock(generalAppMutex_);
    ASSERT_TRUE(LaunchGeneralApp(general));
  }
  const pid_t pid = general->pid_;
  const auto fill = [pid](App::AppInfo& app, const Claim& claim) {
    app.pid_ = claim.isOther ? pid + 1 : pid;
    app.state_ = claim.state;
    app.isExited_ = claim.isExited;
    app.startTime_ = At(claim.start);
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    fill(*general, row.general.value_or(Claim{0, TERMINATED}));
    {
      const MutexLock lock(baseAppMutex_);
      RemoveAllBaseApps();
      for (const Claim& claim : row.base) {
        App::BaseAppInfo app{ApplicationManifest()};
        app.appName_ = "base" + std::to_string(executedBaseApp_.size());
        fill(app, claim);
        EnterBaseApp(app);
      }
    }
    EXPECT_EQ(OwnerOf(pid, At(10)), row.owner);
  }
}

TEST_F(AppLists, APidIsFiledFromTheLaunchToTheRemoval) {
  const GeneralAppPtr app = Record("svc");
  const MutexLock lock(generalAppMutex_);
  ASSERT_TRUE(LaunchGeneralApp(app));
  EXPECT_EQ(FindGeneralApp("svc"), app);
  SteadyTime limit = SteadyTime::max();
  EXPECT_EQ(FindGeneralAppByPid(app->pid_, limit), "svc");
  EXPECT_EQ(limit, app->startTime_);

  // A restart by the check pass: the record has a new process, and a number of the old none.
  const pid_t old = app->pid_;
  End(old);
  app->SetExitStatus(SIGKILL);
  app->state_ = RESTARTING;
  StepGeneralApp(*app, SteadyNow());
  ASSERT_NE(app->pid_, old);
  limit = SteadyTime::max();
  EXPECT_EQ(FindGeneralAppByPid(old, limit), "");
  EXPECT_EQ(FindGeneralAppByPid(app->pid_, limit), "svc");

  // A restart by a request, on a record that is still in the map.
  const pid_t second = app->pid_;
  End(second);
  ASSERT_TRUE(LaunchGeneralApp(app));
  limit = SteadyTime::max();
  EXPECT_EQ(FindGeneralAppByPid(second, limit), "");
  EXPECT_EQ(FindGeneralAppByPid(app->pid_, limit), "svc");

  // Removed and launched again.
  const pid_t third = app->pid_;
  End(third);
  RemoveTerminatedGeneralApps();
  EXPECT_EQ(FindGeneralApp("svc"), app) << "only what is TERMINATED goes";
  app->state_ = TERMINATED;
  (void)log_.Take();
  RemoveTerminatedGeneralApps();
  EXPECT_EQ(log_.Take(), Lines{"I PROCMGR : Process svc removed from the list of generalAppMap_"});
  EXPECT_EQ(FindGeneralApp("svc"), nullptr);
  app->state_ = STARTING;
  limit = SteadyTime::max();
  EXPECT_EQ(FindGeneralAppByPid(third, limit), "");
  ASSERT_TRUE(LaunchGeneralApp(app));
  EXPECT_EQ(FindGeneralAppByPid(app->pid_, limit), "svc");
}

TEST_F(AppLists, ABaseRecordIsFoundWhereverItHasMovedTo) {
  const MutexLock lock(baseAppMutex_);
  for (const char* const name : {"a", "b", "c"}) {
    App::BaseAppInfo app{ApplicationManifest()};
    app.appName_ = name;
    app.execPath_ = "/bin/sleep";
    app.arguments_ = {"1000"};
    ASSERT_TRUE(app.StartProcess());
    EnterBaseApp(app);
  }
  const auto ownerOf = [](pid_t pid) REQUIRES(baseAppMutex_) -> std::string {
    SteadyTime limit = SteadyTime::max();
    const std::size_t index = FindBaseAppByPid(pid, limit);
    return index < executedBaseApp_.size() ? executedBaseApp_[index].appName_ : "nobody";
  };
  const pid_t ofA = FindBaseApp("a")->pid_;
  const pid_t ofC = FindBaseApp("c")->pid_;
  End(FindBaseApp("b")->pid_);
  RemoveBaseApps([](const App::BaseAppInfo& app) { return app.appName_ == "b"; });
  EXPECT_EQ(FindBaseApp("b"), nullptr);
  ASSERT_NE(FindBaseApp("c"), nullptr);
  EXPECT_EQ(FindBaseApp("c")->pid_, ofC);
  EXPECT_EQ(ownerOf(ofA), "a");
  EXPECT_EQ(ownerOf(ofC), "c");

  // A restart in its place.
  End(ofC);
  ASSERT_TRUE(RelaunchBaseApp(*FindBaseApp("c")));
  EXPECT_EQ(ownerOf(ofC), "nobody");
  EXPECT_EQ(ownerOf(FindBaseApp("c")->pid_), "c");
  End(FindBaseApp("c")->pid_);
  End(ofA);
}

TEST_F(AppLists, ALaunchThatFailsChangesNothing) {
  const GeneralAppPtr app = Record("svc");
  app->execPath_ = "/nonexistent/program";
  app->pid_ = 4242;
  const MutexLock lock(generalAppMutex_);
  EXPECT_FALSE(LaunchGeneralApp(app));
  EXPECT_EQ(FindGeneralApp("svc"), nullptr);
  SteadyTime limit = SteadyTime::max();
  EXPECT_EQ(FindGeneralAppByPid(4242, limit), "");
  EXPECT_EQ(limit, SteadyTime::max());
}

// A base service can end between its fork and the entry of its record: the reaper waits.
TEST_F(AppLists, TheReaperWaitsForEntriesThatAreUnderWay) {
  auto first = std::make_unique<BaseAppEntry>();
  auto second = std::make_unique<BaseAppEntry>();
  bool isWaiting = false;  // Under baseAppMutex_, which the reaper lets go only by waiting.
  std::string found;
  std::thread reaper([&] {
    const MutexLock lock(baseAppMutex_);
    isWaiting = true;
    WaitForBaseAppEntries();
    const App::BaseAppInfo* const app = FindBaseApp("late");
    found = app == nullptr ? "nobody" : app->appName_;
  });
  EXPECT_TRUE(PmSandbox::Eventually([&] {
    const MutexLock lock(baseAppMutex_);
    return isWaiting;
  }));
  first.reset();
  {
    const MutexLock lock(baseAppMutex_);
    App::BaseAppInfo app{ApplicationManifest()};
    app.appName_ = "late";
    EnterBaseApp(app);
  }
  second.reset();
  reaper.join();
  EXPECT_EQ(found, "late");
}

// Whichever allocation of a start fails: a process that there is has its record, and one that there
// isn't has none.
TEST_F(AppLists, AShortageLeavesNoProcessWithoutItsRecord) {
  for (int allowed = 0, left = -1; left < 0; ++allowed) {
    SCOPED_TRACE(allowed);
    const GeneralAppPtr app = Record("app");
    const MutexLock lock(generalAppMutex_);
    allocationsLeft = allowed;
    PmTest::Starve(&IsTheOne);
    app->state_ = TERMINATED;  // As one that has run before.
    bool isBrokenOff = false;
    try {
      (void)LaunchGeneralApp(app);
    } catch (const std::bad_alloc&) {
      isBrokenOff = true;
    }
    PmTest::Starve(nullptr);
    left = allocationsLeft;
    const std::vector<pid_t> children = PmSandbox::Children(getpid(), false);
    ASSERT_LE(children.size(), 1U);
    ASSERT_EQ(FindGeneralApp("app"), children.empty() ? nullptr : app);
    ASSERT_EQ(GeneralAppsInOrder().size(), children.size());
    for (const pid_t child : children) {
      SteadyTime limit = SteadyTime::max();
      EXPECT_EQ(app->state_, isBrokenOff ? STARTING : TERMINATED);
      app->state_ = STARTING;
      EXPECT_EQ(FindGeneralAppByPid(child, limit), "app");
      EXPECT_TRUE(PmSandbox::KillAndAwait(child));
      app->state_ = TERMINATED;
      RemoveTerminatedGeneralApps();
    }
  }
}

}  // namespace
}  // namespace ProcMgr
