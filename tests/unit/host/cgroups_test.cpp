#include "host/cgroups.h"

#include <unistd.h>

#include <set>
#include <sstream>
#include <string>

#include "core/host_context.h"
#include "host/core_affinity_mgr.h"
#include "tests/unit/host/host_test.h"
#include "tests/unit/host/parked_thread.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using Testing::TakeLog;

class Cgroups : public Testing::HostTest {
 protected:
  Cgroups() : cpu_(Path("cpu/")), memory_(Path("memory/")), cpuset_(Path("cpuset/")) {}

  void MakeGroups(std::initializer_list<const char*> groups) {
    for (const char* const group : groups) {
      (void)Write(std::string(group) + "/tasks");
    }
  }

  const std::string cpu_;
  const std::string memory_;
  const std::string cpuset_;
  const CgroupRoots roots_{cpu_.c_str(), memory_.c_str(), cpuset_.c_str()};
};

TEST_F(Cgroups, EntersExactlyTheGroupsThatExist) {
  MakeGroups({"cpu/both", "memory/both", "cpu/cpuOnly", "memory/memOnly", "cpuset/set"});
  const std::string failed = "add cgroup failed, ";
  const struct {
    const char* name;
    std::string resGroup, cpuset;
    bool result;
    std::string err;
    std::set<std::string> entered;
  } kCases[] = {
      {"nothing wanted", "", "", true, "", {}},
      {"all", "both", "set", true, "", {"cpu/both", "memory/both", "cpuset/set"}},
      {"resource group alone", "both", "", true, "", {"cpu/both", "memory/both"}},
      {"cpuset alone", "", "set", true, "", {"cpuset/set"}},
      {"name with dots", "both/../both", "set", true, "", {"cpuset/set"}},
      {"cpuset with dots", "both", "..", true, "", {"cpu/both", "memory/both"}},
      {"no cpu group",
       "memOnly",
       "set",
       false,
       failed + "cpu cgroup path=" + cpu_ + "memOnly/tasks is not existed;",
       {}},
      {"no memory group",
       "cpuOnly",
       "set",
       false,
       failed + "mem cgroup path=" + memory_ + "cpuOnly/tasks is not existed;",
       {}},
      {"no cpuset",
       "both",
       "none",
       false,
       failed + "cpuset cgroup path=" + cpuset_ + "none/tasks is not existed;",
       {"cpu/both", "memory/both"}},
  };
  for (const auto& test : kCases) {
    MakeGroups({"cpu/both", "memory/both", "cpu/cpuOnly", "memory/memOnly", "cpuset/set"});
    std::string err = "before;";
    EXPECT_EQ(AddPidToCgroupTasks({"app", 4711, test.resGroup, test.cpuset}, err, roots_),
              test.result)
        << test.name;
    EXPECT_EQ(err, "before;" + test.err) << test.name;
    for (const char* const group :
         {"cpu/both", "memory/both", "cpu/cpuOnly", "memory/memOnly", "cpuset/set"}) {
      EXPECT_EQ(Read(std::string(group) + "/tasks"), test.entered.contains(group) ? "4711\n" : "")
          << test.name << ": " << group;
    }
  }
}

TEST_F(Cgroups, AppendsToTheIdsThatAreThere) {
  MakeGroups({"cpuset/set"});
  std::string err;
  EXPECT_TRUE(AddPidToCgroupTasks({"a", 1, "", "set"}, err, roots_));
  EXPECT_TRUE(AddPidToCgroupTasks({"b", 2, "", "set"}, err, roots_));
  EXPECT_EQ(Read("cpuset/set/tasks"), "1\n2\n");
}

TEST_F(Cgroups, AFailedPlacementOfTheManagerGoesOnWithTheNextThread) {
  AddPmTids({7, 3}, roots_);
  const std::string reason =
      "Add pm tids to cgroup tasks failed, errinfo=add cgroup failed, cpu "
      "cgroup path=" +
      cpu_ + "OTHER/tasks is not existed;, tid=";
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_WARNING, reason + "3"), Plain(LOG_WARNING, reason + "7")));
}

TEST_F(Cgroups, PlacesTheManagerFirstAndThenEachThreadOnce) {
  const Testing::ParkedThread one("one");
  const Testing::ParkedThread two("two");
  MakeGroups({"cpu/OTHER", "memory/OTHER", "cpuset/CtrlCPU"});
  HostContext::Instance().pid_ = getpid();
  AddPmToCgroupTasks(roots_);

  std::set<std::uint32_t> tids;
  ASSERT_TRUE(CoreAffinityMgr::GetTids(getpid(), tids));
  ASSERT_GE(tids.size(), 3U);
  std::string expected = std::to_string(getpid()) + "\n";
  for (const std::uint32_t tid : tids) {
    expected += std::to_string(tid) + "\n";
  }
  EXPECT_EQ(Read("cpu/OTHER/tasks"), expected);
  EXPECT_EQ(Read("memory/OTHER/tasks"), expected);
  EXPECT_EQ(Read("cpuset/CtrlCPU/tasks"), expected);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace ProcMgr
