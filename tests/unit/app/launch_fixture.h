// Real launches in a sandbox with users of its own.
#ifndef TESTS_UNIT_APP_LAUNCH_FIXTURE_H
#define TESTS_UNIT_APP_LAUNCH_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "app/app_info.h"
#include "sandbox/sandbox.h"
#include "sandbox/system_error.h"
#include "tests/support/children.h"
#include "tests/support/service_report.h"
#include "tests/unit/app/fakes.h"

namespace ProcMgr::App {

inline constexpr const char* kService = "/opt/test/service";
inline constexpr const char* kReport = "/run/sandbox/report";
inline constexpr uid_t kAppUid = 2001;
inline constexpr gid_t kAppGid = 3001;      // What manifests give; not the user's own group.
inline constexpr gid_t kAppUserGid = 2001;  // The user's own group.
inline constexpr gid_t kExtraGid = 3002;    // A group that the user is a member of.
// What every child says that would bind itself: nobody has loaded the core lists.
inline const std::string kNoCores = "default ctrl cpu is null;";

// While it lives, the test's thread is inside a sandbox in which kService may be started by the
// user kAppUid. The child message pipe is open.
class LaunchTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Manifests of kService as the user, which reports to kReport.
  [[nodiscard]] static ApplicationManifest::Fields Fields();
  [[nodiscard]] static BaseAppInfo BaseRecord(const ApplicationManifest::Fields& fields);
  [[nodiscard]] static GeneralAppInfo GeneralRecord(const ApplicationManifest::Fields& fields,
                                                    const std::string& owner = "owner");

  // Calls `check` with a record of each kind, for each of the two ways in which a child is made.
  template <typename Check>
  static void ForBothKinds(const ApplicationManifest::Fields& fields, Check check) {
    for (const bool needsOwnMemory : {false, true}) {
      SCOPED_TRACE(needsOwnMemory ? "own memory" : "shared memory");
      Platform().accessNeedsOwnMemory = needsOwnMemory;
      BaseAppInfo base = BaseRecord(fields);
      check(base);
      GeneralAppInfo general = GeneralRecord(fields);
      check(general);
    }
  }

  // Starts the record's service, waits for its report and ends it.
  template <typename Record>
  PmTest::ServiceReport ReportOf(Record& app) {
    Start(app);
    PmTest::ServiceReport report = PmTest::AwaitReport(*sandbox_, kReport, lastPid_);
    EXPECT_EQ(report.Pid(), app.pid_);
    End(app.pid_);
    return report;
  }

  // Starts the record's program and yields the wait status with which it ends by itself.
  template <typename Record>
  static int StatusOf(Record& app) {
    Start(app);
    return PmTest::Reap(app.pid_);
  }

  // Adds a user that is a member of that many groups, from 5000 on, beside its own.
  void AddCrowdedUser(uid_t uid, std::size_t count);

  // What has come through the child message pipe so far.
  [[nodiscard]] static std::string PipeText();
  // The message of a child that says `text`.
  [[nodiscard]] static std::string Message(const AppInfo& app, const std::string& text);

  std::unique_ptr<PmSandbox::Sandbox> sandbox_;

 private:
  template <typename Record>
  static void Start(Record& app) {
    // Behind a refusal there is no process to wait for, and to kill its pid would mean others.
    PmSandbox::CheckStep(app.StartProcess() && app.pid_ > 0, "start");
  }
  void End(pid_t pid);

  std::unique_ptr<PmSandbox::Sandbox::Inside> inside_;
  pid_t lastPid_ = 0;
};

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_LAUNCH_FIXTURE_H
