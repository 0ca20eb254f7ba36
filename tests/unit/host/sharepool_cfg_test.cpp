#include "host/sharepool_cfg.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using Testing::Routed;
using Testing::TakeLog;

using Groups = std::vector<SharepoolGroupsInfo>;

class Sharepool : public Testing::HostTest {
 protected:
  Sharepool() { std::filesystem::create_directory(dir_ / "cfg"); }

  void Load(const std::string& text) { cfg_.LoadCfgFile(Write("cfg/pool.yaml", text)); }

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
  cfg_.FinishSharepoolCfg();
  EXPECT_THAT(GroupsWithSizes(), ElementsAre("POOL_A:18446744073709551615", "POOL_B:5", "POOL_C:7",
                                             "DEFAULT_MEM_GROUP:0"));
  EXPECT_THAT(cfg_.GroupNames(), ElementsAre("POOL_A", "POOL_B", "POOL_C", "DEFAULT_MEM_GROUP"));
  EXPECT_THAT(cfg_.AdminProLists(), ElementsAre("one", "two", "three"));
  EXPECT_THAT(cfg_.WhiteLists(), ElementsAre("/bin/x", "/bin/y"));
  const auto log = TakeLog();
  EXPECT_THAT(log,
              Contains(Routed(LOG_INFO, "LoadSharepoolGroupCfg groupName=POOL_B, memSize=5 KB")));
  EXPECT_THAT(log, Contains(Routed(LOG_WARNING, "cfg=" + Path("cfg/pool.yaml") +
                                                    " not exist add_all_groups_white_lists key")));
  EXPECT_THAT(log, Contains(Routed(LOG_INFO, "sharepoolCfg app three is admin")));
  EXPECT_THAT(log, Contains(Routed(LOG_INFO, "sharepoolCfg has POOL_C sharepool group")));
  EXPECT_THAT(log, Contains(Routed(LOG_INFO, "sharepoolCfg app=/bin/y is in while lists")));
}

TEST_F(Sharepool, BadFilesAndValuesAreToldAndPassedOver) {
  const std::string path = Path("cfg/pool.yaml");
  const struct {
    const char* text;
    Testing::LogLine line;
  } kCases[] = {
      {"a: [",
       Routed(LOG_ERR, "sharepool LoadCfgFile file (" + path + ") failed, init yaml node failed")},
      {"a: 1", Routed(LOG_WARNING, "LoadSharepoolGroupCfg not exist sharepool_groups key")},
      {"a: 1",
       Routed(LOG_WARNING, "cfg=" + path + " LoadAdminProLists not exist admin_pro_lists key")},
      {"sharepool_groups: 5", Plain(LOG_WARNING, path + " invalid file!")},
      {"sharepool_groups: [5]",
       Routed(LOG_WARNING, "cfg=" + path + " has a share pool group without a name")},
      {"admin_pro_lists: {a: 1}",
       Routed(LOG_WARNING, "cfg=" + path + " admin_pro_lists is no list of names")},
      {"add_all_groups_white_lists: 3",
       Routed(LOG_WARNING, "cfg=" + path + " add_all_groups_white_lists is no list of names")},
  };
  for (const auto& test : kCases) {
    Load(test.text);
    EXPECT_THAT(TakeLog(), Contains(test.line)) << test.text;
  }
  EXPECT_THAT(cfg_.Groups(), IsEmpty());

  for (const char* const size :
       {"", "mem_size: -1", "mem_size: big", "mem_size: 18446744073709551616"}) {
    SharepoolCfg cfg;
    cfg.LoadCfgFile(Write("cfg/pool.yaml", std::string("sharepool_groups: {P: {") + size + "}}"));
    EXPECT_THAT(TakeLog(), Contains(Routed(LOG_WARNING, "GetSharepoolGroupMemSize is null !")));
    ASSERT_EQ(cfg.Groups().size(), 1U) << size;
    EXPECT_EQ(cfg.Groups()[0].memSize, 0U) << size;
  }
}

TEST_F(Sharepool, ReadsTheRegularFilesOfTheFolder) {
  (void)Write("cfg/a", "sharepool_groups: {A: {mem_size: 1}}");
  (void)Write("cfg/broken", "a: [");
  (void)Write("cfg/folder/b", "sharepool_groups: {B: {mem_size: 1}}");
  (void)Write("elsewhere", "sharepool_groups: {C: {mem_size: 1}}");
  std::filesystem::create_symlink(dir_ / "elsewhere", dir_ / "cfg/link");
  ASSERT_EQ(mkfifo(Path("cfg/fifo").c_str(), 0600), 0);
  cfg_.LoadSharepoolCfg(Path("cfg"));
  EXPECT_THAT(GroupsWithSizes(), ElementsAre("A:1"));
}

// The group names are made up per process: the platform's record outlives the object.
TEST_F(Sharepool, WithoutAFolderTheDefaultGroupIsCreatedAllTheSame) {
  cfg_.InitSharepool(Path("missing"));
  const auto log = TakeLog();
  EXPECT_EQ(log[0], Routed(LOG_ERR, "LoadSharepoolCfg failed: errno=" + std::to_string(ENOENT)));
  EXPECT_EQ(log[1], Routed(LOG_INFO, "sharepoolCfg has DEFAULT_MEM_GROUP sharepool group"));
  EXPECT_THAT(log[2], ::testing::AnyOf(
                          Routed(LOG_INFO, "CreateSharepoolGroup group=DEFAULT_MEM_GROUP success"),
                          Routed(LOG_WARNING,
                                 "CreateSharepoolGroup faild cur group="
                                 "DEFAULT_MEM_GROUP is existed")));
  EXPECT_THAT(cfg_.GroupNames(), ElementsAre("DEFAULT_MEM_GROUP"));
}

TEST_F(Sharepool, TriesEveryGroup) {
  const std::string tooLong(64, 'g');
  Load("sharepool_groups: [" + tooLong + ": {mem_size: 1}, TRIED: {mem_size: 2}]");
  cfg_.FinishSharepoolCfg();
  (void)TakeLog();
  cfg_.CreateSharepoolGroup();
  cfg_.CreateSharepoolGroup();
  const auto log = TakeLog();
  EXPECT_THAT(
      log, Contains(Routed(LOG_ERR, "CreateSharepoolGroup group=" + tooLong + " faild, res=22")));
  EXPECT_THAT(log, Contains(Routed(LOG_INFO, "CreateSharepoolGroup group=TRIED success")));
  EXPECT_THAT(
      log, Contains(Routed(LOG_WARNING, "CreateSharepoolGroup faild cur group=TRIED is existed")));
}

TEST_F(Sharepool, ChoosesAnApplicationsGroups) {
  Load("sharepool_groups: {A: {mem_size: 1}, B: {mem_size: 2}}\nadmin_pro_lists: [boss]");
  cfg_.FinishSharepoolCfg();
  const Groups wanted = {{"B", "ro"}};
  EXPECT_EQ(cfg_.GetAppSharepoolGroups("boss", wanted),
            (Groups{{"A", "admin"}, {"B", "admin"}, {"DEFAULT_MEM_GROUP", "admin"}}));
  EXPECT_EQ(cfg_.GetAppSharepoolGroups("worker", wanted), wanted);
  EXPECT_EQ(cfg_.GetAppSharepoolGroups("worker", {}), (Groups{{"DEFAULT_MEM_GROUP", "alloc"}}));
}

TEST_F(Sharepool, ChecksGroupAndPermission) {
  Load("sharepool_groups: {A: {mem_size: 1}, boss: {mem_size: 2}}\nadmin_pro_lists: [boss]");
  cfg_.FinishSharepoolCfg();
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
    EXPECT_EQ(cfg_.CheckSharepoolGroupCfg(test.group, err), test.err.empty())
        << test.group.groupName << " " << test.group.permission;
    EXPECT_EQ(err, "before;" + test.err);
  }
}

TEST_F(Sharepool, TellsAChildItsLegalGroups) {
  Load("sharepool_groups: {A: {mem_size: 1}, B: {mem_size: 2}}");
  cfg_.FinishSharepoolCfg();
  const struct {
    Groups groups;
    std::string names;
    std::size_t refusals;
  } kCases[] = {
      {{}, "DEFAULT_MEM_GROUP", 0},
      {{{"A", "ro"}, {"B", ""}}, "A#B", 0},
      {{{"A", "ro"}, {"X", "ro"}}, "A", 1},
      {{{"X", "ro"}, {"A", "ro"}}, "A", 1},
      {{{"A", "ro"}, {"X", "ro"}, {"B", "ro"}}, "A#B", 1},
      {{{"X", "ro"}, {"A", "bad"}}, "", 2},
  };
  for (const auto& test : kCases) {
    (void)unsetenv("SHAREGROUP_PRECONFIG");
    (void)setenv("SHAREPOOL_GROUP_NAME", "old", 1);
    std::string err;
    cfg_.SetSharepoolGroupEnv("app", test.groups, err);
    EXPECT_STREQ(getenv("SHAREGROUP_PRECONFIG"), "1") << test.names;
    EXPECT_EQ(getenv("SHAREPOOL_GROUP_NAME"), test.names);
    EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(err, ';')), test.refusals) << err;
  }
}

TEST_F(Sharepool, AdmitsAProcessToEachLegalGroup) {
  Load(
      "sharepool_groups: {ADMIT_A: {mem_size: 1}, ADMIT_B: {mem_size: 2}, ADMIT_LATE: {mem_size: "
      "1}}");
  cfg_.CreateSharepoolGroup();
  (void)TakeLog();
  const std::string pid = std::to_string(getpid());
  cfg_.AddSharepoolGroup("app", getpid(), {{"ADMIT_A", "rw"}, {"X", "ro"}, {"ADMIT_B", ""}});
  EXPECT_THAT(TakeLog(),
              ElementsAre(Routed(LOG_INFO, "AddSharepoolGroup: success, pid=" + pid +
                                               ", appName=app, groupName=ADMIT_A, permission=rw"),
                          Routed(LOG_WARNING,
                                 "AddSharepoolGroup CheckGroupCfg fail: pid=" + pid +
                                     ", appName=app, group=X, permission=ro, "
                                     "err=CheckSharepoolGroupCfg faild groupName=X is not legal;"),
                          Routed(LOG_INFO, "AddSharepoolGroup: success, pid=" + pid +
                                               ", appName=app, groupName=ADMIT_B, permission=")));
  cfg_.AddSharepoolGroup("app", 0x7fffffff, {{"ADMIT_A", "ro"}});
  EXPECT_THAT(TakeLog(), ElementsAre(Routed(LOG_WARNING,
                                            "AddSharepoolGroup failed ret=3, pid=2147483647, "
                                            "appName=app, groupName=ADMIT_A, permission=ro")));
}

}  // namespace
}  // namespace ProcMgr
