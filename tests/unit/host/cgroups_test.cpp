#include "host/cgroups.h"

#include <set>
#include <string>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using Cgroups = Testing::HostTest;

TEST_F(Cgroups, EntersTheGroupsThatExistAndNothingOutsideTheHierarchies) {
  const std::string cpu = Path("cpu/");
  const std::string memory = Path("memory/");
  const std::string cpuset = Path("cpuset/");
  const struct {
    std::string resGroup, cpuset;
    std::string missing;
    std::set<std::string> entered;
  } kCases[] = {
      {"both", "set", "", {"cpu/both", "memory/both", "cpuset/set"}},
      // Names that lead out of a hierarchy are passed over, and only they.
      {"both/../both", "set", "", {"cpuset/set"}},
      {"both", "..", "", {"cpu/both", "memory/both"}},
      {"both", "none", "cpuset cgroup path=" + cpuset + "none", {"cpu/both", "memory/both"}},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.resGroup + " and " + test.cpuset);
    const std::string groups[] = {"cpu/both", "memory/both", "cpuset/set"};
    for (const std::string& group : groups) {
      Write(group + "/tasks", "17\n");
    }
    std::string err = "before;";
    EXPECT_EQ(AddPidToCgroupTasks({"app", 4711, test.resGroup, test.cpuset}, err,
                                  {cpu.c_str(), memory.c_str(), cpuset.c_str()}),
              test.missing.empty());
    EXPECT_EQ(err, test.missing.empty()
                       ? "before;"
                       : "before;add cgroup failed, " + test.missing + "/tasks is not existed;");
    for (const std::string& group : groups) {
      EXPECT_EQ(Read(group + "/tasks"), test.entered.contains(group) ? "17\n4711\n" : "17\n")
          << group;
    }
  }
}

}  // namespace
}  // namespace ProcMgr
