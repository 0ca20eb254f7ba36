#include "host/core_affinity_mgr.h"

#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/unit/host/host_test.h"
#include "tests/unit/host/parked_thread.h"

namespace ProcMgr {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Testing::ParkedThread;
using Testing::Plain;
using Testing::TakeLog;

using Cores = std::vector<std::uint32_t>;

// The cores on which a thread may run; 0 is the caller.
Cores MaskOf(std::uint32_t tid) {
  cpu_set_t mask;
  CPU_ZERO(&mask);
  EXPECT_EQ(sched_getaffinity(static_cast<pid_t>(tid), sizeof(mask), &mask), 0);
  Cores cores;
  for (std::uint32_t core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &mask)) {
      cores.push_back(core);
    }
  }
  return cores;
}

class CoreAffinity : public Testing::HostTest {
 protected:
  // A manager over cpuset files with these contents.
  CoreAffinityMgr& Make(const std::string& ctrl, const std::string& ai) {
    manager_.emplace(CpusetPaths{Write("ctrl", ctrl), Write("ai", ai), Write("ai_tasks")});
    manager_->LoadCpuInfo();
    (void)TakeLog();
    return *manager_;
  }
  CoreAffinityMgr& Make() { return Make(std::to_string(first_), ""); }

  // The test needs two cores to see a move. A machine with one can't tell a binding from none.
  void SetUp() override {
    ASSERT_EQ(sched_getaffinity(0, sizeof(before_), &before_), 0);
    const Cores allowed = MaskOf(0);
    if (allowed.size() < 2 || allowed[1] >= cpuCount) {
      GTEST_SKIP() << "needs two cores";
    }
    first_ = allowed[0];
    second_ = allowed[1];
  }

  // A recovery of the whole process binds the test's own thread as well.
  void TearDown() override { EXPECT_EQ(sched_setaffinity(0, sizeof(before_), &before_), 0); }

  std::optional<CoreAffinityMgr> manager_;
  cpu_set_t before_{};
  std::uint32_t first_ = 0;
  std::uint32_t second_ = 0;
  std::string err_;
};

TEST_F(CoreAffinity, FillsOnlyEmptyLists) {
  CoreAffinityMgr& manager = Make("0-1", "");
  (void)Write("ctrl", "5");
  (void)Write("ai", "7");
  manager.LoadCpuInfo();
  EXPECT_THAT(manager.CtrlCpus(), ElementsAre(0, 1));
  EXPECT_THAT(manager.AiCpus(), ElementsAre(7));
}

TEST_F(CoreAffinity, KnowsItsSets) {
  CoreAffinityMgr& manager = Make("0-3", "1," + std::to_string(cpuCount));
  EXPECT_TRUE(manager.CheckIsCtrlCpu("app", {}));
  EXPECT_TRUE(manager.CheckIsCtrlCpu("app", {3, 0}));
  EXPECT_THAT(TakeLog(), IsEmpty());
  EXPECT_FALSE(manager.CheckIsCtrlCpu("app", {1, 9, 8}));
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_ERR, "CheckIsCtrlCpu app=app, coreId=9 is not in CtrlCpu")));
  EXPECT_TRUE(manager.IsAiCpu(1));
  EXPECT_FALSE(manager.IsAiCpu(0));
  EXPECT_FALSE(manager.IsAiCpu(cpuCount)) << "an absent core";
}

TEST_F(CoreAffinity, BindsAThread) {
  const ParkedThread thread("bound");
  const auto tid = static_cast<pid_t>(thread.Tid());
  CoreAffinityMgr& manager = Make();
  const struct {
    const char* name;
    Cores cores;
    Cores mask;
  } kCases[] = {
      {"one core", {second_}, {second_}},
      {"two cores", {second_, first_}, {first_, second_}},
      {"absent cores are passed over", {cpuCount, second_, 5000}, {second_}},
      {"an empty list means the control cores", {}, {first_}},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(manager.SetCoreAffinityToOs(tid, test.cores, err_), kCoreAffinityOk) << test.name;
    EXPECT_EQ(MaskOf(thread.Tid()), test.mask) << test.name;
  }
  EXPECT_EQ(err_, "");
  EXPECT_EQ(Read("ai_tasks"), "");
}

TEST_F(CoreAffinity, ARefusedBindingLeavesTheMask) {
  const ParkedThread thread("refused");
  const auto tid = static_cast<pid_t>(thread.Tid());
  const Cores before = MaskOf(thread.Tid());
  CoreAffinityMgr& manager = Make("", "");
  EXPECT_EQ(manager.SetCoreAffinityToOs(tid, {}, err_), kNoCtrlCpus);
  EXPECT_EQ(manager.SetCoreAffinityToOs(tid, {cpuCount}, err_), kCoreMaskRefused);
  EXPECT_EQ(manager.SetCoreAffinityToOs(-1, {first_}, err_), kCoreMaskRefused);
  EXPECT_EQ(err_, "default ctrl cpu is null;SetCoreAffinity fail pid=" + std::to_string(tid) +
                      ", errno=" + std::to_string(EINVAL) +
                      ";SetCoreAffinity fail pid=-1, errno=" + std::to_string(ESRCH) + ";");
  EXPECT_EQ(MaskOf(thread.Tid()), before);
}

TEST_F(CoreAffinity, EntersTheAiCpusetOncePerAiCore) {
  const ParkedThread thread("ai");
  const std::string id = std::to_string(thread.Tid());
  CoreAffinityMgr& manager =
      Make(std::to_string(first_), std::to_string(first_) + "," + std::to_string(second_));
  EXPECT_EQ(manager.SetCoreAffinityToOs(static_cast<pid_t>(thread.Tid()), {first_, second_}, err_),
            kCoreAffinityOk);
  EXPECT_EQ(Read("ai_tasks"), id + "\n" + id + "\n");

  std::filesystem::remove(dir_ / "ai_tasks");
  EXPECT_EQ(manager.SetCoreAffinityToOs(static_cast<pid_t>(thread.Tid()), {first_}, err_),
            kCoreAffinityOk);
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_ERR, "WriteTidToAIcpuSet failed tid: " + id +
                                                        ", aicpuSet: " + Path("ai_tasks") +
                                                        " is not existed")));
  EXPECT_FALSE(std::filesystem::exists(dir_ / "ai_tasks")) << "the manager makes no cgroup";
}

TEST_F(CoreAffinity, ListsThreads) {
  ParkedThread thread("listed");
  std::set<std::uint32_t> tids = {1};
  EXPECT_TRUE(CoreAffinityMgr::GetTids(getpid(), tids));
  EXPECT_THAT(tids, Contains(1)) << "the set isn't cleared";
  EXPECT_THAT(tids, Contains(thread.Tid()));
  EXPECT_THAT(tids, Contains(getpid()));
  (void)TakeLog();
  EXPECT_FALSE(CoreAffinityMgr::GetTids(-1, tids));
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_ERR, "opendir /proc/-1/task/ fail, errno: " +
                                                        std::to_string(ENOENT))));
}

TEST_F(CoreAffinity, ReadsThreadNames) {
  ParkedThread thread("x");
  for (const std::string name : {"x", "with blank", "123456789012345", ""}) {
    thread.Rename(name);
    std::array<char, 16> text;
    text.fill('#');
    ASSERT_TRUE(CoreAffinityMgr::GetThreadName(getpid(), thread.Tid(), text.data(), text.size()));
    EXPECT_EQ(std::string(text.data()), name);
  }
  thread.Rename("abcdef");
  std::array<char, 4> small;
  small.fill('#');
  ASSERT_TRUE(CoreAffinityMgr::GetThreadName(getpid(), thread.Tid(), small.data(), small.size()));
  EXPECT_EQ(std::string(small.data()), "abc");
  (void)TakeLog();
  thread.End();
  EXPECT_FALSE(CoreAffinityMgr::GetThreadName(getpid(), thread.Tid(), small.data(), small.size()));
  EXPECT_THAT(TakeLog(), IsEmpty()) << "a thread that has gone is no fault";
}

TEST_F(CoreAffinity, RecoversRememberedAndOtherThreads) {
  CoreAffinityMgr& manager = Make();
  const ParkedThread remembered("remembered");
  const ParkedThread other("other");
  ASSERT_EQ(manager.StoreAndSetCoreAffinity(getpid(), remembered.Tid(), {second_}),
            kCoreAffinityOk);
  EXPECT_EQ(MaskOf(remembered.Tid()), Cores{second_});

  // The wake-up left both on all cores.
  for (const std::uint32_t tid : {remembered.Tid(), other.Tid()}) {
    ASSERT_EQ(manager.SetCoreAffinityToOs(static_cast<pid_t>(tid), {first_, second_}, err_),
              kCoreAffinityOk);
  }
  (void)TakeLog();
  const auto self = static_cast<std::uint32_t>(getpid());
  EXPECT_TRUE(manager.RecoverCoreAffinity({{0x7fffffff, {}}, {self, {first_}}}));
  EXPECT_EQ(MaskOf(remembered.Tid()), Cores{second_});
  EXPECT_EQ(MaskOf(other.Tid()), Cores{first_});
  const auto log = TakeLog();
  EXPECT_THAT(log, Contains(Plain(LOG_ERR, "CoreAffinityMgr GetTids fail, pid:2147483647")));
  EXPECT_THAT(
      log, Contains(Plain(LOG_INFO, "CoreAffinityMgr WakeUpRecover CheckTidIsValid success, pid:" +
                                        std::to_string(self) +
                                        ", tid:" + std::to_string(remembered.Tid()))));
  EXPECT_THAT(log.back().text, HasSubstr("CoreAffinityMgr WakeUpRecover tid:"));
  EXPECT_THAT(log.back().text, HasSubstr("," + std::to_string(other.Tid()) + ","));
}

TEST_F(CoreAffinity, AReusedThreadIdLosesItsRecordAndIsBoundOnlyTheNextTime) {
  CoreAffinityMgr& manager = Make();
  ParkedThread thread("before");
  ASSERT_EQ(manager.StoreAndSetCoreAffinity(getpid(), thread.Tid(), {first_, second_}),
            kCoreAffinityOk);
  thread.Rename("after");
  (void)TakeLog();
  const std::vector<AppCoreInfo> apps = {{static_cast<std::uint32_t>(getpid()), {second_}}};
  EXPECT_TRUE(manager.RecoverCoreAffinity(apps));
  EXPECT_THAT(TakeLog(), Contains(Plain(LOG_WARNING,
                                        "CoreAffinityMgr WakeUpRecover CheckTidIsValid fail, pid:" +
                                            std::to_string(getpid()) +
                                            ", tid:" + std::to_string(thread.Tid()))));
  EXPECT_EQ(MaskOf(thread.Tid()), (Cores{first_, second_}));
  EXPECT_TRUE(manager.RecoverCoreAffinity(apps));
  EXPECT_EQ(MaskOf(thread.Tid()), Cores{second_});
}

TEST_F(CoreAffinity, ARecordStaysWhenItsBindingFails) {
  CoreAffinityMgr& manager = Make();
  const ParkedThread thread("stays");
  EXPECT_EQ(manager.StoreAndSetCoreAffinity(getpid(), thread.Tid(), {cpuCount}), kCoreMaskRefused);
  (void)TakeLog();
  manager.RecycleThreadCoreInfo(getpid(), "app");
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_INFO,
                                           "RecycleThreadCoreInfo finished app: app, "
                                           "tid: " +
                                               std::to_string(thread.Tid()) +
                                               ", pid: " + std::to_string(getpid()))));
  EXPECT_EQ(manager.StoreAndSetCoreAffinity(getpid(), 0x7fffffff, {first_}), kThreadNameUnreadable);
  (void)TakeLog();
  manager.RecycleThreadCoreInfo(getpid(), "app");
  EXPECT_THAT(TakeLog(), IsEmpty()) << "nothing was stored for a thread without a name";
}

TEST_F(CoreAffinity, RecyclesTheLowestThreadOfAProcessAndChecksTheRest) {
  CoreAffinityMgr& manager = Make();
  ParkedThread one("one");
  ParkedThread two("two");
  const std::uint32_t lower = std::min(one.Tid(), two.Tid());
  const std::uint32_t higher = std::max(one.Tid(), two.Tid());
  for (const std::uint32_t tid : {higher, lower}) {
    ASSERT_EQ(manager.StoreAndSetCoreAffinity(getpid(), tid, {first_}), kCoreAffinityOk);
  }
  (void)TakeLog();
  manager.RecycleThreadCoreInfo(getpid() + 1, "stranger");
  EXPECT_THAT(TakeLog(), IsEmpty());
  manager.CheckThreadCoreInfos();  // Both are alive: nothing is dropped.
  manager.RecycleThreadCoreInfo(getpid(), "app");
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_INFO,
                                "RecycleThreadCoreInfo finished app: app, "
                                "tid: " +
                                    std::to_string(lower) + ", pid: " + std::to_string(getpid()))));
  one.End();
  two.End();
  manager.CheckThreadCoreInfos();
  manager.RecycleThreadCoreInfo(getpid(), "app");
  EXPECT_THAT(TakeLog(), IsEmpty()) << "the check dropped the record of the ended thread";
}

}  // namespace
}  // namespace ProcMgr
