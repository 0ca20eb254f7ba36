#include "core/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/host_context.h"
#include "sandbox/log_reader.h"
#include "sandbox/process_table.h"
#include "sandbox/sandbox.h"

namespace {

// A /dev/log and a /dev/kmsg of its own, and the flag that chooses between them put back.
class Log : public testing::Test {
 protected:
  Log() {
    ProcMgr::HostContext::Instance().pid_ = 321;
    ProcMgr::OpenLog();
  }
  ~Log() override {
    QuickStart(false);
    ProcMgr::CloseLog();
  }

  static void QuickStart(bool on) { ProcMgr::HostContext::Instance().isQuickStart_ = on; }

  const PmSandbox::Sandbox sandbox_;
  const PmSandbox::LogReader log_{sandbox_};
  const PmSandbox::Sandbox::Inside inside_{sandbox_};
};

TEST_F(Log, QuickStartSendsRoutedCallsToTheKernelLogAlone) {
  const auto writeOneOfEach = [] {
    ProcMgr::LogError("error %d", 1);
    ProcMgr::LogWarning("warning %d", 2);
    ProcMgr::LogInfo("information %d", 3);
    ProcMgr::LogDebug("debug %d", 4);
    ProcMgr::LogErrorRouted("routed error %d", 5);
    ProcMgr::LogWarningRouted("routed warning %d", 6);
    ProcMgr::LogInfoRouted("routed information %d", 7);
  };
  ProcMgr::LogInfo("opens the socket");
  const std::vector<std::string> descriptors = PmSandbox::OpenDescriptors(getpid());
  QuickStart(true);
  writeOneOfEach();
  EXPECT_EQ(PmSandbox::OpenDescriptors(getpid()), descriptors);
  QuickStart(false);
  writeOneOfEach();
  ASSERT_TRUE(log_.WaitFor("routed information 7")) << log_.Text();
  const std::vector<std::string> expected = {
      "6 opens the socket", "3 error 1",        "4 warning 2",        "6 information 3",
      "7 debug 4",          "3 error 1",        "4 warning 2",        "6 information 3",
      "7 debug 4",          "3 routed error 5", "4 routed warning 6", "6 routed information 7"};
  EXPECT_EQ(log_.Masked(), expected);
  EXPECT_EQ(sandbox_.ReadFile("/dev/kmsg"),
            "<3> PROCMGR[321] routed error 5"
            "<4> PROCMGR[321] routed warning 6"
            "<6> PROCMGR[321] routed information 7");
}

TEST_F(Log, WithoutKernelLogTheLineIsDroppedAndNoFileIsMade) {
  ASSERT_TRUE(std::filesystem::remove("/dev/kmsg"));
  QuickStart(true);
  ProcMgr::LogErrorRouted("nobody reads this");
  EXPECT_FALSE(std::filesystem::exists("/dev/kmsg"));
  ProcMgr::LogError("the end");
  ASSERT_TRUE(log_.WaitFor("the end")) << log_.Text();
  EXPECT_EQ(log_.Lines().size(), 1U) << log_.Text();
}

TEST_F(Log, LongLines) {
  const std::string text(5000, 'x');
  ProcMgr::LogInfo("%s", text.c_str());
  ASSERT_TRUE(log_.WaitFor(text)) << "syslog has no limit that a path could reach";

  // The kernel refuses a longer record whole.
  QuickStart(true);
  ProcMgr::LogInfoRouted("%s", text.c_str());
  const std::string kernelLog = sandbox_.ReadFile("/dev/kmsg");
  EXPECT_TRUE(kernelLog.starts_with("<6> PROCMGR[321] xxx"));
  EXPECT_EQ(kernelLog.size(), 975U);
}

}  // namespace
