// The checks that refuse a start. Each refusal has one line in the log and forks nothing.

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
    EXPECT_TRUE(app.isExited_) << "the pid may be a stranger's";
    EXPECT_FALSE(app.boundTids_.empty());
  }

  static void ExpectStarted(BaseAppInfo app) { EXPECT_GE(StatusOf(app), 0); }
};

TEST_F(PrepareStart, ArgumentsWithAShellTokenAnywhere) {
  const auto with = [](const std::string& argument) {
    BaseAppInfo app = Record();
    app.arguments_ = {"plain", argument};
    return app;
  };
  for (const char token : std::string("|;><`&()$")) {
    for (const std::string& argument : {token + std::string("a"), std::string("a") + token}) {
      ExpectRefused(with(argument),
                    "E PROCMGR : CheckChildProParas App=svc arguments include illegal str");
    }
  }
  ExpectStarted(with("-x a*?[]{}'\"\\~!#%^=+,./:@\n"));
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
    const char* refusal;  // Behind the path; null for a start.
  } const rows[] = {
      {0, kOwner, kOwner, 0001, nullptr},
      {0, kOwner, kOwner, 0010, nullptr},
      {0, 0, 0, 0100, nullptr},
      {0, kOwner, 0, 0666, " uid=2002"},
      {kOwner, kOwner, 0, 0100, nullptr},
      {kOwner, kOwner, kOwner, 0677, " uid=2002"},
      {kUnknown, kUnknown, 0, 0100, nullptr},
      {kMember, kOwner, kExtraGid, 0010, nullptr},
      {kMember, kOwner, kAppUserGid, 0010, nullptr},
      {kMember, kOwner, kExtraGid, 0701, " gid=3002"},
      {kMember, kOwner, kAppGid, 0777, " uid=2002, gid=3001"},
      {kUnknown, kOwner, kExtraGid, 0777, " uid=2002, gid=3002"},
  };
  sandbox_->AddUser("fileowner", kOwner, kOwner, "/");
  // A link is followed: the file behind it is judged, and the message names that one.
  ASSERT_EQ(symlink(kProgram, "/opt/test/link"), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    ASSERT_EQ(chown(kProgram, row.fileUid, row.fileGid), 0);
    ASSERT_EQ(chmod(kProgram, row.mode), 0);
    BaseAppInfo app = Record(row.uid);
    app.execPath_ = "/opt/test/link";
    if (row.refusal == nullptr) {
      ExpectStarted(std::move(app));
    } else {
      const std::string user = row.uid == 0 ? " is root" : "=" + std::to_string(row.uid);
      ExpectRefused(std::move(app), "E PROCMGR : Start App=svc failed, cfg uid" + user +
                                        ", but binPath=/opt/test/program" + row.refusal +
                                        " not have x permission !!");
    }
  }
}

TEST_F(PrepareStart, AUserInMoreThan128GroupsIsInNone) {
  AddCrowdedUser(2128, 127);
  AddCrowdedUser(2129, 128);
  ASSERT_EQ(chown(kProgram, 0, 5126), 0);
  ExpectStarted(Record(2128));
  ExpectRefused(Record(2129),
                "E PROCMGR : Start App=svc failed, cfg uid=2129, but "
                "binPath=/opt/test/program uid=0, gid=5126 not have x permission !!");
}

}  // namespace
}  // namespace ProcMgr::App
