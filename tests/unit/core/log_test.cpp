#include "core/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/host_context.h"
#include "tests/support/log_reader.h"
#include "tests/support/process_table.h"
#include "tests/support/sandbox.h"

namespace {

using PmTest::LogLine;

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

  const PmTest::Sandbox sandbox_;
  const PmTest::LogReader log_{sandbox_};
  const PmTest::Sandbox::Inside inside_{sandbox_};
};

void WriteOneOfEach() {
  ProcMgr::LogError("error %d", 1);
  ProcMgr::LogWarning("warning %d", 2);
  ProcMgr::LogInfo("information %d", 3);
  ProcMgr::LogDebug("debug %d", 4);
  ProcMgr::LogErrorRouted("routed error %d", 5);
  ProcMgr::LogWarningRouted("routed warning %d", 6);
  ProcMgr::LogInfoRouted("routed information %d", 7);
}

std::vector<std::string> Texts(const std::vector<LogLine>& lines) {
  std::vector<std::string> texts;
  for (const LogLine& line : lines) {
    texts.push_back(std::to_string(line.level) + " " + line.text);
  }
  return texts;
}

TEST_F(Log, EveryCallReachesSyslogWithItsLevel) {
  WriteOneOfEach();
  ASSERT_TRUE(log_.WaitFor("routed information 7")) << log_.Text();
  EXPECT_EQ(Texts(log_.Lines()),
            (std::vector<std::string>{"3 error 1", "4 warning 2", "6 information 3", "7 debug 4",
                                      "3 routed error 5", "4 routed warning 6",
                                      "6 routed information 7"}));
  for (const LogLine& line : log_.Lines()) {
    EXPECT_EQ(line.ident, "PROCMGR");
    EXPECT_EQ(line.facility, LOG_USER >> 3);
    EXPECT_EQ(line.pid, getpid());
  }
  EXPECT_EQ(sandbox_.ReadFile("/dev/kmsg"), "");
}

TEST_F(Log, QuickStartSendsRoutedCallsToTheKernelLogAlone) {
  QuickStart(true);
  WriteOneOfEach();
  QuickStart(false);
  ProcMgr::LogInfoRouted("after the quick start");

  ASSERT_TRUE(log_.WaitFor("after the quick start")) << log_.Text();
  EXPECT_EQ(Texts(log_.Lines()),
            (std::vector<std::string>{"3 error 1", "4 warning 2", "6 information 3", "7 debug 4",
                                      "6 after the quick start"}));
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

TEST_F(Log, NoDescriptorIsInheritedOrLeftOpen) {
  ProcMgr::LogInfo("opens the socket");
  ASSERT_TRUE(log_.WaitFor("opens the socket"));
  const std::vector<std::string> before = PmTest::OpenDescriptors(getpid());
  QuickStart(true);
  ProcMgr::LogInfoRouted("to the kernel log");
  EXPECT_EQ(PmTest::OpenDescriptors(getpid()), before);

  int sockets = 0;
  for (const std::string& descriptor : before) {
    if (descriptor.find("socket:") != std::string::npos) {
      const int flags = fcntl(std::stoi(descriptor), F_GETFD);
      EXPECT_TRUE(flags < 0 || (flags & FD_CLOEXEC) != 0) << descriptor;
      ++sockets;
    }
  }
  EXPECT_GE(sockets, 1) << "the socket of syslog wasn't seen";
}

}  // namespace
