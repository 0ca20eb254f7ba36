#include "tests/unit/app/launch_fixture.h"

#include <poll.h>

#include "base/boot_trace.h"
#include "base/child_msg_pipe.h"
#include "core/host_context.h"
#include "platform/timer/generic_timer.h"
#include "tests/support/children.h"
#include "tests/unit/app/fakes.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {

void LaunchTest::SetUp() {
  ResetPlatform();
  SetBootClock({&GenericTimerCount, &GenericTimerFrequency});
  (void)signal(SIGPIPE, SIG_IGN);  // As the manager does.
  sandbox_ = std::make_unique<PmSandbox::Sandbox>();
  sandbox_->AddGroup("apps", kAppGid);
  sandbox_->AddGroup("extra", kExtraGid);
  sandbox_->AddUser("app", kAppUid, kAppUserGid, "/home/app", {"extra"});
  sandbox_->InstallProgram(PmSandbox::ProgramPath("test-service"), kService, 0, kAppUserGid, 0750);
  inside_ = std::make_unique<PmSandbox::Sandbox::Inside>(*sandbox_);
  CreateChildMsgPipe();
  (void)TakeLog();
}

void LaunchTest::TearDown() {
  CloseChildMsgPipe();
  HostContext::Instance().isQuickStart_ = false;
  HostContext::Instance().delayCoreAffinityReceived_ = false;
  inside_.reset();
  sandbox_.reset();
  ResetPlatform();
}

ApplicationManifest::Fields LaunchTest::Fields() {
  ApplicationManifest::Fields fields;
  fields.appName = "svc";
  fields.binPath = kService;
  fields.uid = kAppUid;
  fields.gid = kAppGid;
  fields.arguments = {"--report", kReport};
  return fields;
}

BaseAppInfo LaunchTest::BaseRecord(const ApplicationManifest::Fields& fields) {
  return BaseAppInfo(ApplicationManifest(fields));
}

GeneralAppInfo LaunchTest::GeneralRecord(const ApplicationManifest::Fields& fields,
                                         const std::string& owner) {
  return GeneralAppInfo(fields.appName, ApplicationManifest(fields), owner);
}

std::string LaunchTest::PipeText() {
  const int fd = HostContext::Instance().childMsgReadFd_.Get();
  std::string text;
  for (pollfd ready{fd, POLLIN, 0}; poll(&ready, 1, 0) == 1;) {
    std::array<char, 4096> part{};
    const ssize_t size = read(fd, part.data(), part.size());
    if (size <= 0) {
      break;
    }
    text.append(part.data(), static_cast<std::size_t>(size));
  }
  return text;
}

std::string LaunchTest::Message(const AppInfo& app, const std::string& text) {
  return "app=" + app.appName_ + ",pid=" + std::to_string(app.pid_) + "," + text;
}

void LaunchTest::AddCrowdedUser(uid_t uid, std::size_t count) {
  const std::string name = "crowded" + std::to_string(uid);
  std::vector<std::string> groups;
  for (std::size_t i = 0; i < count; ++i) {
    groups.push_back(name + "-" + std::to_string(i));
    sandbox_->AddGroup(groups.back(), static_cast<gid_t>(5000 + i));
  }
  sandbox_->AddUser(name, uid, uid, "/", groups);
}

void LaunchTest::End(pid_t pid) {
  lastPid_ = pid;
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  EXPECT_EQ(PmTest::Reap(pid), SIGKILL);
}

}  // namespace ProcMgr::App
