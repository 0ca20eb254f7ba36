#include "core/log.h"

#include <pty.h>
#include <termios.h>

#include "base/printable.h"
#include "base/unique_fd.h"
#include "core/host_context.h"
#include "sandbox/log_reader.h"
#include "sandbox/process_table.h"
#include "sandbox/sandbox.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/test.h"
#include "tests/support/threads.h"

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
  ASSERT_TRUE(log_.WaitFor("opens the socket"));
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

// The kernel shows a record of its device only when it ends with a line break.
TEST(KernelLog, ARecordOfTheDeviceEndsWithALineBreak) {
  int master = -1;
  int device = -1;
  ASSERT_EQ(openpty(&master, &device, nullptr, nullptr, nullptr), 0);
  const ProcMgr::UniqueFd reader(master);
  const ProcMgr::UniqueFd terminal(device);
  termios raw{};
  cfmakeraw(&raw);
  ASSERT_EQ(tcsetattr(device, TCSANOW, &raw), 0);
  const PmSandbox::Sandbox sandbox;
  const PmSandbox::Sandbox::Inside inside(sandbox);
  ASSERT_TRUE(std::filesystem::remove("/dev/kmsg"));
  std::filesystem::create_symlink("/proc/self/fd/" + std::to_string(device), "/dev/kmsg");
  ProcMgr::HostContext::Instance().pid_ = 321;
  ProcMgr::HostContext::Instance().isQuickStart_ = true;
  for (const std::string& text : {std::string("short"), std::string(2000, 'x')}) {
    ProcMgr::LogInfoRouted("%s", text.c_str());
    // The kernel takes no more than 976 bytes.
    const std::string record = ("<6> PROCMGR[321] " + text).substr(0, 975) + '\n';
    std::array<char, 2000> buffer{};
    const ssize_t size = read(master, buffer.data(), buffer.size());
    EXPECT_EQ(std::string(buffer.data(), static_cast<std::size_t>(std::max(size, ssize_t{0}))),
              record);
  }
  ProcMgr::HostContext::Instance().isQuickStart_ = false;
}

TEST_F(Log, LongLines) {
  const std::string text(5000, 'x');
  ProcMgr::LogInfo("%s", text.c_str());
  ASSERT_TRUE(log_.WaitFor(text)) << "no path could reach the limit";
  ProcMgr::LogInfo("%s", std::string(40'000, 'y').c_str());
  ASSERT_TRUE(log_.WaitFor("y...")) << "what lies beyond the limit is cut";

  // The kernel refuses a longer record whole.
  QuickStart(true);
  ProcMgr::LogInfoRouted("%s", text.c_str());
  const std::string kernelLog = sandbox_.ReadFile("/dev/kmsg");
  EXPECT_TRUE(kernelLog.starts_with("<6> PROCMGR[321] xxx"));
  EXPECT_EQ(kernelLog.size(), 975U);
}

TEST_F(Log, WhatOthersPutIntoALineIsPrintable) {
  const char* const evil = "a\nb\x1b[2J\xc3\xa4\x7f\\x41 100%s~";
  const std::string shown = "<a\\x0ab\\x1b[2J\\xc3\\xa4\\x7f\\x41 100%s~>";
  ProcMgr::LogError("<%s>", evil);
  // What has been made printable before stays as it is.
  ProcMgr::LogError("<%s>", ProcMgr::Printable(evil).c_str());
  ASSERT_TRUE(log_.WaitForCount(shown, 2)) << log_.Text();
  QuickStart(true);
  ProcMgr::LogErrorRouted("<%s>", evil);
  EXPECT_EQ(sandbox_.ReadFile("/dev/kmsg"), "<3> PROCMGR[321] " + shown);
}

TEST_F(Log, ALineNeedsNoMemory) {
  const std::string text = std::string(200, '\n') + "the end";
  PmTest::Starve([] { return gettid() == getpid(); });
  for (int i = 0; i < 1000; ++i) {
    ProcMgr::LogError("%d%s", i, text.c_str());
  }
  QuickStart(true);
  ProcMgr::LogErrorRouted("%s", text.c_str());
  PmTest::Starve(nullptr);
  EXPECT_TRUE(log_.WaitForCount("\\x0athe end", 1000));
  EXPECT_EQ(log_.Lines().size(), 1000U);
  EXPECT_TRUE(sandbox_.ReadFile("/dev/kmsg").ends_with("\\x0athe end"));
}

// Several threads, at a rate that no boot reaches, and a burst larger than the queue.
TEST_F(Log, AReaderThatKeepsUpGetsEveryLineInOrder) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  PmTest::OnThreads(kThreads, [](int thread) {
    for (int i = 0; i < kEach; ++i) {
      ProcMgr::LogInfo("thread %d line %d", thread, i);
    }
  });
  ProcMgr::CloseLog();
  std::vector<int> next(kThreads, 0);
  ASSERT_TRUE(log_.WaitForCount("thread", std::size_t{kThreads} * kEach)) << log_.Lines().size();
  for (const PmSandbox::LogLine& line : log_.Lines()) {
    const auto thread = static_cast<std::size_t>(line.text.at(7) - '0');
    ASSERT_EQ(line.text,
              "thread " + std::to_string(thread) + " line " + std::to_string(next.at(thread)));
    ++next.at(thread);
  }
}

TEST(MakePrintable, CutsWhatHasNoRoom) {
  const struct {
    std::string text;
    std::size_t room;
    std::string shown;
  } cases[] = {
      {"", 4, ""},
      {"abcd", 4, "abcd"},
      {"a\n\n\n", 4, "a..."},
      {"\n", 4, "\\x0a"},
      {"a\n", 4, "a..."},
      {"\n\n", 7, "\\x0a..."},
      {"\n\nab", 9, "\\x0a..."},
      {"\n\nab", 10, "\\x0a\\x0aab"},
      {"ab\n\n", 10, "ab\\x0a\\x0a"},
      {"ab\xff", 5, "ab..."},
  };
  for (const auto& c : cases) {
    std::string buffer = c.text;
    buffer.resize(c.room);
    const std::size_t size = ProcMgr::MakePrintable(buffer, c.text.size());
    EXPECT_EQ(buffer.substr(0, size), c.shown);
  }
}

}  // namespace
