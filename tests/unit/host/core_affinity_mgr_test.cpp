#include "host/core_affinity_mgr.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <future>

#include "sandbox/wait.h"
#include "tests/support/taken_log.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

using PmTest::TakeLog;

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

// A thread that does nothing until it is let go.
class ParkedThread {
 public:
  explicit ParkedThread(const std::string& name)
      : thread_([this] {
          tid_.set_value(static_cast<std::uint32_t>(gettid()));
          release_.get_future().wait();
        }) {
    Rename(name);
    id_ = tid_.get_future().get();
  }
  ~ParkedThread() { End(); }
  ParkedThread(const ParkedThread&) = delete;
  ParkedThread& operator=(const ParkedThread&) = delete;

  [[nodiscard]] std::uint32_t Tid() const { return id_; }
  void Rename(const std::string& name) {
    (void)pthread_setname_np(thread_.native_handle(), name.c_str());
  }
  void End() {
    if (thread_.joinable()) {
      release_.set_value();
      thread_.join();
      // The kernel wakes who joins before it takes the thread out of /proc.
      const std::string entry = "/proc/self/task/" + std::to_string(id_);
      EXPECT_TRUE(PmSandbox::Eventually([&] { return access(entry.c_str(), F_OK) != 0; }));
    }
  }

 private:
  std::promise<std::uint32_t> tid_;
  std::promise<void> release_;
  std::uint32_t id_ = 0;
  std::thread thread_;  // Last: it uses the others.
};

class CoreAffinity : public ::testing::Test, protected PmTest::TempFolder {
 protected:
  // The test needs two cores to see a move. A machine with one can't tell a binding from none.
  void SetUp() override {
    (void)TakeLog();  // Lines of the test before.
    ASSERT_EQ(sched_getaffinity(0, sizeof(before_), &before_), 0);
    const Cores allowed = MaskOf(0);
    if (allowed.size() < 2 || allowed[1] >= cpuCount) {
      GTEST_SKIP() << "needs two cores";
    }
    first_ = allowed[0];
    second_ = allowed[1];
    Load(std::to_string(first_), "");
  }

  // A recovery of the whole process binds the test's own thread as well.
  void TearDown() override { EXPECT_EQ(sched_setaffinity(0, sizeof(before_), &before_), 0); }

  // Makes a manager over cpuset files with these contents.
  void Load(const std::string& ctrl, const std::string& ai) {
    manager_.emplace(CpusetPaths{Write("ctrl", ctrl), Write("ai", ai), Write("ai_tasks", "")});
    manager_->LoadCpuInfo();
  }

  std::uint32_t Store(std::uint32_t tid, const Cores& cores) {
    return manager_->StoreAndSetCoreAffinity(getpid(), tid, cores);
  }

  // What the log says when a record of this process is forgotten.
  std::vector<std::string> Recycle() {
    (void)TakeLog();
    manager_->RecycleThreadCoreInfo(getpid(), "app");
    return TakeLog();
  }
  static std::string Recycled(std::uint32_t tid) {
    return "I RecycleThreadCoreInfo finished app: app, tid: " + std::to_string(tid) +
           ", pid: " + std::to_string(getpid());
  }

  std::optional<CoreAffinityMgr> manager_;
  cpu_set_t before_{};
  std::uint32_t first_ = 0;
  std::uint32_t second_ = 0;
};

TEST_F(CoreAffinity, ReadsASetOnceAndKnowsItsCores) {
  Load("0-3", "");
  Write("ctrl", "5");
  Write("ai", "1," + std::to_string(cpuCount));
  manager_->LoadCpuInfo();
  EXPECT_THAT(manager_->CtrlCpus(), ElementsAre(0, 1, 2, 3)) << "only an empty set is read";
  EXPECT_TRUE(manager_->CheckIsCtrlCpu("app", {3, 0}));
  (void)TakeLog();
  EXPECT_FALSE(manager_->CheckIsCtrlCpu("app", {1, 9, 8}));
  EXPECT_THAT(TakeLog(), ElementsAre("E CheckIsCtrlCpu app=app, coreId=9 is not in CtrlCpu"));
  EXPECT_TRUE(manager_->IsAiCpu(1));
  EXPECT_FALSE(manager_->IsAiCpu(0));
  EXPECT_FALSE(manager_->IsAiCpu(cpuCount)) << "an absent core";
}

TEST_F(CoreAffinity, BindsAThreadOrLeavesItsMask) {
  const ParkedThread thread("bound");
  const auto tid = static_cast<pid_t>(thread.Tid());
  const struct {
    Cores cores;
    std::uint32_t result;
    Cores mask;
  } kCases[] = {
      {{second_, first_}, kCoreAffinityOk, {first_, second_}},
      {{cpuCount, second_, 5000}, kCoreAffinityOk, {second_}},  // Absent cores are passed over.
      {{}, kCoreAffinityOk, {first_}},                          // The control cores.
      {{cpuCount}, kCoreMaskRefused, {first_}},
  };
  std::string err;
  for (const auto& test : kCases) {
    EXPECT_EQ(err, "");
    EXPECT_EQ(manager_->SetCoreAffinityToOs(tid, test.cores, err), test.result);
    EXPECT_EQ(MaskOf(thread.Tid()), test.mask);
  }
  EXPECT_EQ(err, "SetCoreAffinity fail pid=" + std::to_string(tid) +
                     ", errno=" + std::to_string(EINVAL) + ";");
}

TEST_F(CoreAffinity, ReadsThreadNamesIntoWhatRoomThereIs) {
  ParkedThread thread("with blank");
  std::array<char, 16> text;
  text.fill('#');
  EXPECT_TRUE(CoreAffinityMgr::GetThreadName(getpid(), thread.Tid(), text.data(), 7));
  EXPECT_EQ(std::string(text.data()), "with b");
  EXPECT_EQ(text[7], '#') << "written behind its end";
  thread.End();
  EXPECT_FALSE(CoreAffinityMgr::GetThreadName(getpid(), thread.Tid(), text.data(), text.size()));
  EXPECT_THAT(TakeLog(), IsEmpty()) << "a thread that has gone is no fault";
}

TEST_F(CoreAffinity, RecoversRememberedAndOtherThreads) {
  const ParkedThread remembered("remembered");
  const ParkedThread other("other");
  ASSERT_EQ(Store(remembered.Tid(), {second_}), kCoreAffinityOk);
  EXPECT_EQ(MaskOf(remembered.Tid()), Cores{second_});

  // The wake-up left both on all cores.
  std::string err;
  for (const std::uint32_t tid : {remembered.Tid(), other.Tid()}) {
    ASSERT_EQ(manager_->SetCoreAffinityToOs(static_cast<pid_t>(tid), {first_, second_}, err),
              kCoreAffinityOk);
  }
  const auto self = static_cast<std::uint32_t>(getpid());
  EXPECT_TRUE(manager_->RecoverCoreAffinity({{0x7fffffff, {}}, {self, {first_}}}));
  EXPECT_EQ(MaskOf(remembered.Tid()), Cores{second_});
  EXPECT_EQ(MaskOf(other.Tid()), Cores{first_});
  EXPECT_THAT(TakeLog(), Contains("E CoreAffinityMgr GetTids fail, pid:2147483647"));
}

TEST_F(CoreAffinity, AReusedThreadIdLosesItsRecordAndIsBoundOnlyTheNextTime) {
  ParkedThread thread("before");
  ASSERT_EQ(Store(thread.Tid(), {first_, second_}), kCoreAffinityOk);
  thread.Rename("after");
  const std::vector<AppCoreInfo> apps = {{static_cast<std::uint32_t>(getpid()), {second_}}};
  EXPECT_TRUE(manager_->RecoverCoreAffinity(apps));
  EXPECT_EQ(MaskOf(thread.Tid()), (Cores{first_, second_}));
  EXPECT_TRUE(manager_->RecoverCoreAffinity(apps));
  EXPECT_EQ(MaskOf(thread.Tid()), Cores{second_});
}

TEST_F(CoreAffinity, ARecordStaysWhenItsBindingFails) {
  const ParkedThread thread("stays");
  EXPECT_EQ(Store(thread.Tid(), {cpuCount}), kCoreMaskRefused);
  EXPECT_THAT(Recycle(), ElementsAre(Recycled(thread.Tid())));
  EXPECT_EQ(Store(0x7fffffff, {first_}), kThreadNameUnreadable);
  EXPECT_THAT(Recycle(), IsEmpty()) << "nothing was stored for a thread without a name";
}

TEST_F(CoreAffinity, RecyclesTheLowestThreadOfAProcessAndChecksTheRest) {
  ParkedThread one("one");
  ParkedThread two("two");
  for (const std::uint32_t tid : {one.Tid(), two.Tid()}) {
    ASSERT_EQ(Store(tid, {first_}), kCoreAffinityOk);
  }
  manager_->RecycleThreadCoreInfo(getpid() + 1, "stranger");
  manager_->CheckThreadCoreInfos();  // Both are alive: nothing is dropped.
  EXPECT_THAT(Recycle(), ElementsAre(Recycled(std::min(one.Tid(), two.Tid()))));
  one.End();
  two.End();
  manager_->CheckThreadCoreInfos();
  EXPECT_THAT(Recycle(), IsEmpty()) << "the check dropped the record of the ended thread";
}

}  // namespace
}  // namespace ProcMgr
