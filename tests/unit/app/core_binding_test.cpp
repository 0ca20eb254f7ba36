// Binding to cores and groups: in the child at its start, and from the manager later. The list of
// control cores is read once per process, so these tests have a program of their own.
#include <sched.h>

#include "core/host_context.h"
#include "host/core_affinity_mgr.h"
#include "sandbox/process_table.h"
#include "sandbox/wait.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

// One core, the first that this process may use, is the control core.
class CoreBinding : public LaunchTest {
 protected:
  void SetUp() override {
    LaunchTest::SetUp();
    ASSERT_EQ(sandbox_->CgroupProblem(), "");
    cpu_set_t own;
    ASSERT_EQ(sched_getaffinity(0, sizeof(own), &own), 0);
    while (CPU_ISSET(core_, &own) == 0) {
      ++core_;
    }
    if (CPU_COUNT(&own) < 2) {
      GTEST_SKIP() << "on one core no binding is seen";
    }
    wide_ = PmSandbox::StatusField(getpid(), "Cpus_allowed_list");
    sandbox_->MakePlatformGroups(std::to_string(core_));
    CoreAffinityMgr::Instance().LoadCpuInfo();
    ASSERT_EQ(CoreAffinityMgr::Instance().CtrlCpus(), std::vector<std::uint32_t>{core_});
    (void)TakeLog();
  }

  // A running service with two threads more, bound to nothing.
  GeneralAppInfo Unbound() {
    ApplicationManifest::Fields fields = Fields();
    fields.arguments = {"--threads", "2"};
    fields.coreAffinity = {core_};
    fields.isDelayCoreAffinity = true;
    GeneralAppInfo app = GeneralRecord(fields);
    EXPECT_TRUE(app.StartProcess());
    EXPECT_TRUE(PmSandbox::Eventually([&] { return PmSandbox::Threads(app.pid_).size() == 3; }));
    EXPECT_EQ(Cores(app.pid_), Lines(3, wide_));
    (void)TakeLog();
    return app;
  }

  // The allowed cores of each thread.
  static Lines Cores(pid_t pid) {
    Lines cores;
    for (const pid_t tid : PmSandbox::Threads(pid)) {
      cores.push_back(PmSandbox::StatusField(tid, "Cpus_allowed_list"));
    }
    return cores;
  }

  std::uint32_t core_ = 0;
  std::string wide_;
};

TEST_F(CoreBinding, ChildBindsItselfUnlessItIsDelayed) {
  const std::string narrow = std::to_string(core_);
  struct {
    std::vector<std::uint32_t> cores;
    bool isDelayed;
    bool isReceived;
    bool isQuickStart;
    bool isBound;
  } const rows[] = {
      {{core_}, false, false, false, true},
      {{}, false, false, false, true},
      {{core_}, true, false, false, false},
      {{core_}, true, true, false, true},
      {{core_}, false, true, true, false},
      // Without cores of its own there is nothing to delay.
      {{}, true, false, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    HostContext::Instance().delayCoreAffinityReceived_ = row.isReceived;
    HostContext::Instance().isQuickStart_ = row.isQuickStart;
    ApplicationManifest::Fields fields = Fields();
    fields.coreAffinity = row.cores;
    fields.isDelayCoreAffinity = row.isDelayed;
    const std::string expected = row.isBound ? narrow : wide_;
    ForBothKinds(fields, [&](auto& app) {
      EXPECT_EQ(ReportOf(app).Get("status.Cpus_allowed_list"), expected);
    });
    EXPECT_EQ(PipeText(), "");
  }
}

TEST_F(CoreBinding, DelayedBindingThatFailsIsTold) {
  GeneralAppInfo app = Unbound();
  app.coreAffinity_ = {999};
  EXPECT_FALSE(app.BindCoreForDelayApp());
  std::string texts;
  std::vector<pid_t> ids = PmSandbox::Threads(app.pid_);
  ids.insert(ids.begin(), app.pid_);  // The process first, then each thread.
  for (const pid_t id : ids) {
    texts += "SetCoreAffinity fail pid=" + std::to_string(id) + ", errno=22;";
  }
  EXPECT_EQ(TakeLog(), Lines{"W PROCMGR : BindCoreForDelayApp failed err=" + texts});
}

TEST_F(CoreBinding, MissingThreadsAreBoundOnce) {
  GeneralAppInfo app = Unbound();
  const std::vector<pid_t> threads = PmSandbox::Threads(app.pid_);
  app.boundTids_ = {1, static_cast<std::uint32_t>(threads[1])};
  EXPECT_FALSE(app.CheckMissingTids()) << "two were missing";
  const std::string narrow = std::to_string(core_);
  const Lines firstAndLast = {narrow, wide_, narrow};
  EXPECT_EQ(Cores(app.pid_), firstAndLast);
  EXPECT_TRUE(app.CheckMissingTids());
  EXPECT_TRUE(app.ClearBoundTids());
  EXPECT_FALSE(app.CheckMissingTids());
  EXPECT_EQ(Cores(app.pid_), Lines(3, narrow));
  EXPECT_EQ(TakeLog(), Lines{});

  // A thread that can't be bound is tried again.
  EXPECT_TRUE(app.ClearBoundTids());
  app.coreAffinity_ = {999};
  for (int scan = 0; scan < 2; ++scan) {
    EXPECT_FALSE(app.CheckMissingTids());
    const Lines log = TakeLog();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_EQ(log[1],
              "W PROCMGR : CheckMissingTids SetCoreAffinityToOs failed "
              "err=SetCoreAffinity fail pid=" +
                  std::to_string(threads[1]) + ", errno=22;");
  }
}

}  // namespace
}  // namespace ProcMgr::App
