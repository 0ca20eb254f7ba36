// Real launches in a sandbox with users of its own.
#ifndef TESTS_UNIT_APP_LAUNCH_FIXTURE_H
#define TESTS_UNIT_APP_LAUNCH_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "app/app_info.h"
#include "tests/support/sandbox.h"
#include "tests/support/service_report.h"

namespace ProcMgr::App {

inline constexpr const char* kService = "/opt/test/service";
inline constexpr const char* kReport = "/run/sandbox/report";
inline constexpr uid_t kAppUid = 2001;
inline constexpr gid_t kAppGid = 3001;      // What manifests give; not the user's own group.
inline constexpr gid_t kAppUserGid = 2001;  // The user's own group.
inline constexpr gid_t kExtraGid = 3002;    // A group that the user is a member of.

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

  // Starts the record's service, waits for its report and ends it.
  template <typename Record>
  PmTest::ServiceReport ReportOf(Record& app) {
    if (!app.StartProcess()) {
      ADD_FAILURE() << "refused";
      return {};
    }
    PmTest::ServiceReport report = PmTest::AwaitReport(*sandbox_, kReport, lastPid_);
    EXPECT_EQ(report.Pid(), app.pid_);
    End(app.pid_);
    return report;
  }

  // Starts the record's program and yields the wait status with which it ends by itself.
  template <typename Record>
  int StatusOf(Record& app) {
    if (!app.StartProcess()) {
      ADD_FAILURE() << "refused";
      return -1;
    }
    return AwaitEnd(app.pid_);
  }

  // Waits for the end of a child and takes its status.
  [[nodiscard]] static int AwaitEnd(pid_t pid);

  // What has come through the child message pipe so far.
  [[nodiscard]] static std::string PipeText();
  // The message of a child that says `text`.
  [[nodiscard]] static std::string Message(const AppInfo& app, const std::string& text);

  std::unique_ptr<PmTest::Sandbox> sandbox_;

 private:
  void End(pid_t pid);

  std::unique_ptr<PmTest::Sandbox::Inside> inside_;
  pid_t lastPid_ = 0;
};

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_LAUNCH_FIXTURE_H
