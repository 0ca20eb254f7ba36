// The classes beside the engine, where no boot can show a limit to the millisecond or an order.
#include "base/mutex.h"
#include "base/steady_time.h"
#include "core/base_service_file.h"
#include "core/general_app_table.h"
#include "core/heart_messages.h"
#include "core/list_rest.h"
#include "core/reporter.h"
#include "core/startup_cfg.h"
#include "message/serialization.h"
#include "tests/support/log_capture.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

using Lines = std::vector<std::string>;

TEST(HeartMessages, TellsOfLostAndOfSlowOnes) {
  const struct {
    const char* sender;
    std::uint64_t index;
    std::uint64_t sentAt;
    std::uint64_t arrivesAt;
    Lines lines;
  } cases[] = {
      {"a", 1, 1000, 1050, {}},
      {"a", 2, 1000, 1051, {"W PROCMGR : a send nexiom cost time 1051 - 1000 = 51"}},
      {"b", 2, 1000, 1000, {"W PROCMGR : b lost heart msg, index is 0 / 2"}},
      {"a",
       3,
       1001,
       1000,
       {"W PROCMGR : a send nexiom cost time 1000 - 1001 = 18446744073709551615"}},
      {"a", 3, 1000, 1000, {"W PROCMGR : a lost heart msg, index is 3 / 3"}},
      {"a", 4, 1000, 1000, {}},
      {"iammgr", 9, 0, 1000, {}},
  };
  std::uint64_t now = 0;
  HeartMessages hearts([&now] { return now; });
  PmTest::LogCapture log;
  for (const auto& c : cases) {
    Message::RequestMsg frame{};
    Serialization::ProcMgrPackHeartMsg({c.index, c.sentAt}, frame);
    now = c.arrivesAt;
    hearts.CheckHeartMsg(c.sender, frame);
    EXPECT_EQ(log.Take(), c.lines) << c.sender << ' ' << c.index << ' ' << c.arrivesAt;
  }
}

ApplicationManifest Manifest(const std::string& name, bool isDynamic, std::uint32_t uid) {
  ApplicationManifest::Fields fields;
  fields.appName = name;
  fields.isDynamicPara = isDynamic;
  fields.uid = uid;
  return ApplicationManifest(fields);
}

TEST(StartupCfg, KeepsTheLastManifestOfANameAndOfAPattern) {
  constexpr const char* kPattern = "app_${[0-9]+}";
  StartupCfg cfg;
  cfg.StoreManifests({Manifest("app", false, 1), Manifest(kPattern, true, 2)});
  cfg.StoreManifests({Manifest("app", false, 3), Manifest(kPattern, true, 4)});
  const auto uidOf = [](const std::optional<ApplicationManifest>& manifest) {
    return manifest ? std::optional(manifest->GetUid()) : std::nullopt;
  };
  EXPECT_EQ(uidOf(cfg.Find("app")), 3U);
  EXPECT_EQ(uidOf(cfg.Match("app_17")), 4U);
  EXPECT_EQ(uidOf(cfg.Match("app")), std::nullopt);
  EXPECT_EQ(uidOf(cfg.Find(kPattern)), std::nullopt) << "a pattern is nobody's name";
  EXPECT_EQ(cfg.Fixed().size(), 1U) << "a reload reaches applications with a fixed name only";
}

TEST(GeneralAppTable, KeepsARecordAndItsOwnerThroughAReload) {
  StartupCfg cfg;
  GeneralAppTable table(cfg);
  cfg.StoreManifests({Manifest("app", false, 1), Manifest("app_${[0-9]+}", true, 1)});
  const auto get = [&](const std::string& name, const std::string& owner) {
    const MutexLock lock(generalAppMutex_);
    return table.GetGeneralApp(name, owner);
  };
  const GeneralAppPtr app = get("app", "first");
  ASSERT_NE(app, nullptr);
  EXPECT_EQ(get("app", "second"), app);
  EXPECT_EQ(app->ownerName_, "first");
  const GeneralAppPtr dynamic = get("app_1", "first");
  EXPECT_NE(get("app_1", "first"), dynamic) << "no process keeps it";
  EXPECT_EQ(get("nobody", "first"), nullptr);

  ApplicationManifest::Fields fields;
  fields.appName = "app";
  fields.uid = 2;
  fields.coreAffinity = {255};
  cfg.StoreManifests({ApplicationManifest(fields)});
  table.UpdateManifests();
  EXPECT_EQ(app->uid_, 2U);
  EXPECT_EQ(app->coreAffinity_, std::vector<std::uint32_t>{}) << "a restart may be under way";
  EXPECT_EQ(app->schedPolicy_, 3);
}

TEST(ListRest, LastsUntilSomebodyElseHasTheLock) {
  Mutex mutex;
  ListRest rest;
  const auto lasts = [&] {
    const MutexLock lock(mutex);
    return rest.Lasts(mutex);
  };
  const auto note = [&](bool isResting) {
    const MutexLock lock(mutex);
    rest.Note(isResting, mutex);
  };
  EXPECT_FALSE(lasts());
  note(true);
  EXPECT_TRUE(lasts());
  EXPECT_TRUE(lasts()) << "a look is no touch";
  { const MutexLock touch(mutex); }
  EXPECT_FALSE(lasts());
  EXPECT_FALSE(lasts()) << "only a walk tells that there is rest again";
  note(false);
  EXPECT_FALSE(lasts());
  note(true);
  CondVar never;
  {
    const MutexLock lock(mutex);
    (void)rest.Lasts(mutex);
    EXPECT_FALSE(never.WaitUntil(mutex, SteadyNow())) << "others may have had it meanwhile";
  }
  EXPECT_FALSE(lasts());
}

TEST(BaseServiceFile, IsReadAgainOnlyIfSomethingHasChanged) {
  const PmTest::TempFolder folder;
  const auto service = [](const std::string& name) {
    return "appName: " + name + "\nbinPath: /bin/true\nuid: 0\ngid: 0\n";
  };
  const std::string top = folder.Write("top.yaml", "applications: [{include: one.yaml}]\n");
  (void)folder.Write("one.yaml", service("one"));
  BaseServiceFile file;
  ASSERT_TRUE(file.Load(top));
  const auto isRead = [&] {
    const ApplicationManifest* const before = file.Manifests().data();
    return file.Load(top) && file.Manifests().data() != before;
  };
  EXPECT_FALSE(isRead());
  file.NoteOther("two");
  EXPECT_FALSE(isRead());
  file.NoteOther("one");
  EXPECT_TRUE(isRead());
  (void)folder.Write("one.yaml", service("another"));
  ASSERT_TRUE(isRead());
  EXPECT_EQ(file.Find("one"), nullptr);
  EXPECT_EQ(file.Find("another"), file.Manifests().data());
  (void)folder.Write("top.yaml", "applications: 1\n");
  EXPECT_FALSE(file.Load(top));
  EXPECT_TRUE(file.Manifests().empty());
}

// Nobody has a channel, so that each attempt of a send leaves its line.
TEST(Reporter, TellsTheAccessServiceFirstAndThenTheOwnersInManifestOrder) {
  ProcMgrMaster master([](int, const NexioRequest*) {});
  Reporter reporter(master);
  reporter.PublishBaseAppNames({"zeta", "iammgr", "idle", "alpha"});
  PmTest::LogCapture log;
  reporter.ReportGeneralApps({});
  EXPECT_EQ(log.Take(), Lines{});
  reporter.ReportGeneralApps({{"alpha", {"one", 1, 1, 0, 0}},
                              {"stranger", {"two", 2, 2, 0, 0}},
                              {"iammgr", {"three", 3, 3, 0, 0}},
                              {"zeta", {"four", 4, 4, 0, 0}},
                              {"alpha", {"five", 5, 5, 0, 0}}});
  const auto refused = [](const std::string& name) {
    return "E PROCMGR : Master ReportAppState failed: invalid fd, owner=" + name;
  };
  const std::string failed = "E PROCMGR : CheckThread : report general apps' changes to ";
  EXPECT_EQ(log.Take(),
            (Lines{refused("iammgr"), failed + "IAM failed", refused("zeta"),
                   failed + "owner zeta failed", refused("alpha"), failed + "owner alpha failed"}));
}

}  // namespace
}  // namespace ProcMgr
