// The checks that refuse a start. Each refusal has one line in the log and forks nothing.
#include <sys/stat.h>

#include "core/host_context.h"
#include "host/integrity_protect.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

constexpr const char* kProgram = "/opt/test/program";

class PrepareStart : public LaunchTest {
 protected:
  void SetUp() override {
    LaunchTest::SetUp();
    sandbox_->InstallProgram("/bin/true", kProgram);
  }

  static BaseAppInfo Record(uid_t uid = 0) {
    ApplicationManifest::Fields fields;
    fields.appName = "svc";
    fields.binPath = kProgram;
    fields.uid = uid;
    return BaseRecord(fields);
  }

  // The start must be refused with this one line and leave the record as it was.
  static void ExpectRefused(BaseAppInfo app, const std::string& line) {
    (void)TakeLog();
    app.pid_ = 4242;
    app.isExited_ = true;
    app.boundTids_ = {1};
    EXPECT_FALSE(app.StartProcess());
    EXPECT_EQ(TakeLog(), Lines{line});
    EXPECT_EQ(app.pid_, 4242);
    EXPECT_EQ(app.state_, ProcessState::INITSTATE);
    EXPECT_TRUE(app.isExited_) << "the pid may be a stranger's";
    EXPECT_FALSE(app.boundTids_.empty());
  }

  void ExpectStarted(BaseAppInfo app) {
    ASSERT_TRUE(app.StartProcess());
    EXPECT_EQ(app.state_, ProcessState::STARTING);
    EXPECT_GE(AwaitEnd(app.pid_), 0);
  }
};

TEST_F(PrepareStart, ArgumentsWithAShellTokenAnywhere) {
  const std::string line = "E PROCMGR : CheckChildProParas App=svc arguments include illegal str";
  for (const std::string token : {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$"}) {
    SCOPED_TRACE(token);
    for (const std::string& argument : {token, "a" + token, token + "a", "a" + token + "b"}) {
      BaseAppInfo app = Record();
      app.arguments_ = {"plain", argument};
      ExpectRefused(std::move(app), line);
    }
  }
  BaseAppInfo app = Record();
  app.arguments_ = {"", "-x", "a b", "*?[]{}", "'\"\\", "~!#%^=+,./:@", "\n"};
  ExpectStarted(std::move(app));
}

TEST_F(PrepareStart, ProgramsThatAreNotThere) {
  for (const std::string& path :
       {std::string("/opt/test/missing"), std::string(kProgram) + "/below",
        "/" + std::string(5000, 'x'), std::string()}) {
    BaseAppInfo app = Record();
    app.execPath_ = path;
    ExpectRefused(std::move(app),
                  "E PROCMGR : Start App=svc failed, binPath=" + path + " is not existed !!!");
  }
}

TEST_F(PrepareStart, ExecutePermission) {
  constexpr uid_t kOwner = 2002;
  constexpr uid_t kMember = kAppUid;  // Of kExtraGid; its own group is kAppUserGid.
  constexpr uid_t kUnknown = 9999;
  struct {
    uid_t uid;
    uid_t fileUid;
    gid_t fileGid;
    mode_t mode;
    const char* refusal;  // Behind "failed, "; null for a start.
  } const rows[] = {
      {0, kOwner, kOwner, 0001, nullptr},
      {0, kOwner, kOwner, 0010, nullptr},
      {0, 0, 0, 0100, nullptr},
      {0, kOwner, 0, 0666,
       "cfg uid is root, but binPath=/opt/test/program uid=2002 not have x permission !!"},
      {kOwner, kOwner, 0, 0100, nullptr},
      {kOwner, kOwner, kOwner, 0677,
       "cfg uid=2002, but binPath=/opt/test/program uid=2002 not have x permission !!"},
      {kUnknown, kUnknown, 0, 0100, nullptr},
      {kMember, kOwner, kExtraGid, 0010, nullptr},
      {kMember, kOwner, kAppUserGid, 0010, nullptr},
      {kMember, kOwner, kExtraGid, 0701,
       "cfg uid=2001, but binPath=/opt/test/program gid=3002 not have x permission !!"},
      {kMember, kOwner, kAppGid, 0777,
       "cfg uid=2001, but binPath=/opt/test/program uid=2002, gid=3001 not have x permission !!"},
      {kUnknown, kOwner, kExtraGid, 0777,
       "cfg uid=9999, but binPath=/opt/test/program uid=2002, gid=3002 not have x permission !!"},
  };
  sandbox_->AddUser("fileowner", kOwner, kOwner, "/");
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.uid) + " with " + std::to_string(row.mode) + " of " +
                 std::to_string(row.fileUid) + ":" + std::to_string(row.fileGid));
    ASSERT_EQ(chown(kProgram, row.fileUid, row.fileGid), 0);
    ASSERT_EQ(chmod(kProgram, row.mode), 0);
    if (row.refusal == nullptr) {
      ExpectStarted(Record(row.uid));
    } else {
      ExpectRefused(Record(row.uid),
                    std::string("E PROCMGR : Start App=svc failed, ") + row.refusal);
    }
  }
}

// The file behind a link is judged, and the message names it.
TEST_F(PrepareStart, LinksAreFollowed) {
  ASSERT_EQ(chmod(kProgram, 0644), 0);
  ASSERT_EQ(symlink(kProgram, "/opt/test/link"), 0);
  BaseAppInfo app = Record();
  app.execPath_ = "/opt/test/link";
  ExpectRefused(std::move(app),
                "E PROCMGR : Start App=svc failed, cfg uid is root, but "
                "binPath=/opt/test/program uid=0 not have x permission !!");
}

TEST_F(PrepareStart, AUserInMoreThan128GroupsIsInNone) {
  std::vector<std::string> groups;
  for (gid_t gid = 5000; gid < 5128; ++gid) {
    groups.push_back("g" + std::to_string(gid));
    sandbox_->AddGroup(groups.back(), gid);
  }
  sandbox_->AddUser("crowded", 2128, 2128, "/", {groups.begin() + 1, groups.end()});
  sandbox_->AddUser("overfull", 2129, 2129, "/", groups);
  ASSERT_EQ(chown(kProgram, 0, 5127), 0);
  ExpectStarted(Record(2128));
  ExpectRefused(Record(2129),
                "E PROCMGR : Start App=svc failed, cfg uid=2129, but "
                "binPath=/opt/test/program uid=0, gid=5127 not have x permission !!");
}

TEST_F(PrepareStart, ChangedBinary) {
  const std::string path = "/opt/test/changed";
  sandbox_->InstallProgram("/bin/true", path);
  IntegrityProtect::Instance().ParseHashCfg("changed=" + std::string(64, '0') + "\n");
  BaseAppInfo app = Record();
  app.execPath_ = path;
  EXPECT_FALSE(app.StartProcess());
  const Lines log = TakeLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back(),
            "E PROCMGR : IntegrityProtect app=" + path + " or sha256sum has been modified");
}

// The list of control cores is empty here, so that none is one.
TEST_F(PrepareStart, CoresThatAreNoControlCores) {
  const std::string refusal = "E CheckIsCtrlCpu app=svc, coreId=1 is not in CtrlCpu";
  struct {
    bool isQuickStart;
    std::int32_t priority;
    bool isStarted;
  } const rows[] = {{false, -1, false}, {false, 0, false}, {true, -1, false}, {true, 0, true}};
  for (const auto& row : rows) {
    HostContext::Instance().isQuickStart_ = row.isQuickStart;
    BaseAppInfo app = Record();
    app.coreAffinity_ = {1};
    app.startupPriority_ = row.priority;
    if (row.isStarted) {
      ExpectStarted(std::move(app));
    } else {
      ExpectRefused(std::move(app), refusal);
    }
  }
}

}  // namespace
}  // namespace ProcMgr::App
