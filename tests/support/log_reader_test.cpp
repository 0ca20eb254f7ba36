#include "tests/support/log_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "core/host_context.h"
#include "core/log.h"

namespace PmTest {
namespace {

TEST(ParseSyslog, TakesPriorityIdentPidAndText) {
  struct Case {
    const char* datagram;
    int level;
    int facility;
    const char* ident;
    pid_t pid;
    const char* text;
  };
  const Case cases[] = {
      {"<11>Jan  1 00:00:00 PROCMGR[42]: text: more", 3, 1, "PROCMGR", 42, "text: more"},
      {"<15>Dec 31 23:59:59 a b[c]: d", 7, 1, "a b", 0, "d"},
      {"<14>Jan  1 00:00:00 plain: text\n", 6, 1, "plain", 0, "text"},
      {"no priority", -1, -1, "", 0, "no priority"},
      {"<14>short", -1, -1, "", 0, "short"},
      {"", -1, -1, "", 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.datagram);
    const LogLine line = ParseSyslog(c.datagram);
    EXPECT_EQ(line.level, c.level);
    EXPECT_EQ(line.facility, c.facility);
    EXPECT_EQ(line.ident, c.ident);
    EXPECT_EQ(line.pid, c.pid);
    EXPECT_EQ(line.text, c.text);
  }
}

TEST(Mask, HidesPidsAndTracesOnly) {
  EXPECT_EQ(Mask("[12.500000s][BOOT_TRACE][PM], pid=12,child_pid=3, tid:-4 uid=5 fd=6"),
            "[TRACE], pid=#,child_pid=#, tid:# uid=5 fd=6");
  EXPECT_EQ(Mask("[1.5s][OTHER] pid= pid=x [ [1 tid"), "[1.5s][OTHER] pid= pid=x [ [1 tid");
}

TEST(LogReader, LosesNothingOfManySendersAndKeepsTheOrderOfEach) {
  constexpr std::size_t kSenders = 4;
  constexpr std::size_t kLines = 5000;
  const Sandbox sandbox;
  const LogReader log(sandbox);
  {
    const Sandbox::Inside inside(sandbox);
    ProcMgr::OpenLog();
    std::vector<std::thread> senders;
    for (std::size_t sender = 0; sender < kSenders; ++sender) {
      senders.emplace_back([sender] {
        for (std::size_t i = 0; i < kLines; ++i) {
          ProcMgr::LogWarning("sender %zu line %zu", sender, i);
        }
      });
    }
    for (std::thread& sender : senders) {
      sender.join();
    }
  }
  ASSERT_TRUE(log.WaitForCount("sender", kSenders * kLines));
  std::array<std::size_t, kSenders> next{};
  for (const LogLine& line : log.Lines()) {
    bool isNext = false;
    for (std::size_t sender = 0; sender < kSenders; ++sender) {
      if (line.text ==
          "sender " + std::to_string(sender) + " line " + std::to_string(next.at(sender))) {
        ++next.at(sender);
        isNext = true;
      }
    }
    EXPECT_TRUE(isNext) << line.text;
    EXPECT_EQ(line.level, 4);
    EXPECT_EQ(line.ident, "PROCMGR");
    EXPECT_EQ(line.pid, getpid());
  }
}

TEST(LogReader, WaitFindsTheNextLineOrGivesUp) {
  const Sandbox sandbox;
  const LogReader log(sandbox);
  const Sandbox::Inside inside(sandbox);
  ProcMgr::OpenLog();
  ProcMgr::LogInfo("one");
  ProcMgr::LogInfo("two");
  EXPECT_EQ(log.WaitFor("one"), 0U);
  EXPECT_EQ(log.WaitFor("o"), 0U);
  EXPECT_EQ(log.WaitFor("o", 1), 1U);
  EXPECT_EQ(log.WaitFor("one", 1, std::chrono::milliseconds(1)), std::nullopt);
  EXPECT_FALSE(log.WaitForCount("o", 3, std::chrono::milliseconds(1)));
}

TEST(KernelLog, SplitsLinesThatCarryNoNewline) {
  const Sandbox sandbox;
  const Sandbox::Inside inside(sandbox);
  ProcMgr::HostContext::Instance().pid_ = 77;
  ProcMgr::HostContext::Instance().isQuickStart_ = true;
  ProcMgr::LogErrorRouted("first %d", 1);
  ProcMgr::LogInfoRouted("second <3> of PROCMGR[8]");
  ProcMgr::HostContext::Instance().isQuickStart_ = false;
  const std::vector<LogLine> lines = KernelLog(sandbox);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(MaskLine(lines[0]), "3 first 1");
  EXPECT_EQ(MaskLine(lines[1]), "6 second <3> of PROCMGR[8]");
  EXPECT_EQ(lines[1].pid, 77);
}

}  // namespace
}  // namespace PmTest
