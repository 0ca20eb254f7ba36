#include "host/sharepool_cfg.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

class Sharepool : public Testing::HostTest {
 protected:
  void Load(const std::string& text) { cfg_.LoadCfgFile(Write("pool.yaml", text)); }

  [[nodiscard]] std::vector<std::string> GroupsWithSizes() const {
    std::vector<std::string> list;
    for (const SharepoolGroupCfg& group : cfg_.Groups()) {
      list.push_back(group.groupName + ":" + std::to_string(group.memSize));
    }
    return list;
  }

  SharepoolCfg cfg_;
};

TEST_F(Sharepool, ReadsGroupsAndLists) {
  Load(
      "sharepool_groups:\n"
      "  - POOL_A: {mem_size: 18446744073709551615}\n"
      "  - POOL_B: {mem_size: 5}\n"
      "  - POOL_A: {mem_size: 1}\n"
      "admin_pro_lists: [one, two, one]\n"
      "add_all_groups_white_lists: [/bin/x, /bin/y, /bin/x]\n");
  // A mapping of groups is as good as a list, and the first definition of a name stands.
  Load(
      "sharepool_groups: {POOL_B: {mem_size: 6}, POOL_C: {mem_size: 7}}\nadmin_pro_lists: [three]");
  // What makes no sense changes nothing.
  for (const char* const text :
       {"a: [", "sharepool_groups: [5]", "sharepool_groups: 5\nadmin_pro_lists: {a: 1}",
        "add_all_groups_white_lists: 3"}) {
    Load(text);
  }
  Load("sharepool_groups: {D: {}, E: {mem_size: -1}, F: {mem_size: 18446744073709551616}}");
  cfg_.FinishSharepoolCfg();
  EXPECT_THAT(GroupsWithSizes(), ElementsAre("POOL_A:18446744073709551615", "POOL_B:5", "POOL_C:7",
                                             "D:0", "E:0", "F:0", "DEFAULT_MEM_GROUP:0"));
  EXPECT_THAT(cfg_.AdminProLists(), ElementsAre("one", "two", "three"));
  EXPECT_THAT(cfg_.WhiteLists(), ElementsAre("/bin/x", "/bin/y"));
}

TEST_F(Sharepool, ReadsTheRegularFilesOfTheFolder) {
  Write("cfg/a", "sharepool_groups: {A: {mem_size: 1}}");
  Write("cfg/broken", "a: [");
  Write("cfg/folder/b", "sharepool_groups: {B: {mem_size: 1}}");
  std::filesystem::create_symlink(Write("elsewhere", "sharepool_groups: {C: {mem_size: 1}}"),
                                  Path("cfg/link"));
  ASSERT_EQ(mkfifo(Path("cfg/fifo").c_str(), 0600), 0);
  cfg_.LoadSharepoolCfg(Path("cfg"));
  EXPECT_THAT(GroupsWithSizes(), ElementsAre("A:1"));
}

TEST_F(Sharepool, ChecksGroupAndPermission) {
  Load("sharepool_groups: {A: {mem_size: 1}, boss: {mem_size: 2}}\nadmin_pro_lists: [boss]");
  const struct {
    SharepoolGroupsInfo group;
    std::string err;
  } kCases[] = {
      {{"A", "admin"}, ""},
      {{"A", "alloc"}, ""},
      {{"A", "rw"}, ""},
      {{"A", "ro"}, ""},
      {{"A", ""}, ""},
      {{"boss", "anything"}, ""},  // The group bears an admin application's name.
      {{"A", "RO"}, "CheckSharepoolGroupCfg faild permission=RO is not legal;"},
      {{"C", "ro"}, "CheckSharepoolGroupCfg faild groupName=C is not legal;"},
      {{"", ""}, "CheckSharepoolGroupCfg faild groupName= is not legal;"},
  };
  for (const auto& test : kCases) {
    std::string err = "before;";
    EXPECT_EQ(cfg_.CheckSharepoolGroupCfg(test.group, err), test.err.empty());
    EXPECT_EQ(err, "before;" + test.err) << test.group.groupName << " " << test.group.permission;
  }
}

// The platform's record of a group outlives the object, so no other test has one of this name.
TEST_F(Sharepool, ARefusedGroupOrProcessIsToldAndTheNextIsTried) {
  const std::string tooLong(64, 'g');
  const std::string pid = std::to_string(getpid());
  Load("sharepool_groups: [" + tooLong + ": {mem_size: 1}, TRIED: {mem_size: 2}]");
  (void)Testing::TakeLog();
  cfg_.CreateSharepoolGroup();
  cfg_.CreateSharepoolGroup();
  cfg_.AddSharepoolGroup("app", 0x7fffffff, {{"TRIED", "ro"}});
  cfg_.AddSharepoolGroup("app", getpid(), {{"X", "ro"}, {"TRIED", "rw"}});
  const std::string refused = "RE CreateSharepoolGroup group=" + tooLong + " faild, res=22";
  const std::string lines[] = {
      refused,
      "RI CreateSharepoolGroup group=TRIED success",
      refused,
      "RW CreateSharepoolGroup faild cur group=TRIED is existed",
      "RW AddSharepoolGroup failed ret=3, pid=2147483647, appName=app, groupName=TRIED, "
      "permission=ro",
      "RW AddSharepoolGroup CheckGroupCfg fail: pid=" + pid +
          ", appName=app, group=X, permission=ro, err=CheckSharepoolGroupCfg faild groupName=X is "
          "not legal;",
      "RI AddSharepoolGroup: success, pid=" + pid +
          ", appName=app, groupName=TRIED, permission=rw"};
  EXPECT_THAT(Testing::TakeLog(), ElementsAreArray(lines));
}

}  // namespace
}  // namespace ProcMgr
