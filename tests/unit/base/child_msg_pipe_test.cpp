#include "base/child_msg_pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/boot_trace.h"
#include "core/host_context.h"
#include "platform/timer/generic_timer.h"
#include "sandbox/log_reader.h"
#include "sandbox/process_table.h"
#include "sandbox/sandbox.h"

namespace {

class ChildMsgPipe : public testing::Test {
 protected:
  ChildMsgPipe() {
    ProcMgr::SetBootClock({&ProcMgr::GenericTimerCount, &ProcMgr::GenericTimerFrequency});
  }
  ~ChildMsgPipe() override { ProcMgr::CloseChildMsgPipe(); }

  static int ReadEnd() { return ProcMgr::HostContext::Instance().childMsgReadFd_.Get(); }
  static int WriteEnd() { return ProcMgr::HostContext::Instance().childMsgWriteFd_.Get(); }

  const PmSandbox::Sandbox sandbox_;
  const PmSandbox::LogReader log_{sandbox_};
  const PmSandbox::Sandbox::Inside inside_{sandbox_};
};

TEST_F(ChildMsgPipe, ItsEndsAreInheritedByChildren) {
  const std::vector<std::string> before = PmSandbox::OpenDescriptors(getpid());
  ProcMgr::CreateChildMsgPipe();
  ASSERT_GE(ReadEnd(), 0);
  ASSERT_GE(WriteEnd(), 0);
  EXPECT_EQ(fcntl(ReadEnd(), F_GETFD), 0) << "a flag is set: close-on-exec?";
  EXPECT_EQ(fcntl(WriteEnd(), F_GETFD), 0) << "a flag is set: close-on-exec?";
  const std::string ends =
      "PROCMGR: creat anonymous pipe success, read pipe fd=" + std::to_string(ReadEnd()) +
      ", write pipe fd=" + std::to_string(WriteEnd());
  const auto told = log_.WaitFor(ends);
  ASSERT_TRUE(told) << log_.Text();
  EXPECT_EQ(log_.At(*told).level, 4);
  EXPECT_TRUE(log_.At(*told).text.starts_with("[")) << "no boot trace: " << log_.At(*told).text;

  ProcMgr::CloseChildMsgPipe();
  EXPECT_EQ(ReadEnd(), -1);
  EXPECT_EQ(WriteEnd(), -1);
  ProcMgr::CloseChildMsgPipe();
}

TEST_F(ChildMsgPipe, TextsReachTheLogWholeAndTogether) {
  ProcMgr::CreateChildMsgPipe();
  ProcMgr::WriteChildMsg("camera", 17, "setuid failed errno=1;");
  ProcMgr::WriteChildMsg("radar", 18, "");
  ProcMgr::ReadChildMsg();
  const auto told = log_.WaitFor("pm revice");
  ASSERT_TRUE(told) << log_.Text();
  EXPECT_EQ(log_.At(*told).level, 4);
  EXPECT_EQ(log_.At(*told).text,
            "pm revice child process errinfo size=57, err: "
            "app=camera,pid=17,setuid failed errno=1;app=radar,pid=18,");
}

TEST_F(ChildMsgPipe, OneReadTakesAtMost899Bytes) {
  ProcMgr::CreateChildMsgPipe();
  const std::string head = "app=camera,pid=17,";
  ProcMgr::WriteChildMsg("camera", 17, std::string(1000, 'x'));
  ProcMgr::ReadChildMsg();
  ProcMgr::ReadChildMsg();
  ASSERT_TRUE(log_.WaitForCount("pm revice", 2)) << log_.Text();
  const std::vector<PmSandbox::LogLine> lines = log_.Lines();
  EXPECT_EQ(lines[lines.size() - 2].text, "pm revice child process errinfo size=899, err: " + head +
                                              std::string(899 - head.size(), 'x'));
  EXPECT_EQ(lines.back().text, "pm revice child process errinfo size=119, err: " +
                                   std::string(1000 + head.size() - 899, 'x'));
}

// Not even if a child has cleared what keeps writers from waiting.
TEST_F(ChildMsgPipe, AFullPipeHoldsNoChildUpAndTellsItsLosses) {
  ProcMgr::CreateChildMsgPipe();
  ASSERT_EQ(fcntl(WriteEnd(), F_SETFL, O_WRONLY), 0);
  const int room = fcntl(WriteEnd(), F_GETPIPE_SZ);
  ASSERT_GT(room, 0);
  const std::string text(1000, 'x');
  int writes = 0;
  for (; writes * static_cast<int>(text.size()) <= room; ++writes) {
    ProcMgr::WriteChildMsg("camera", 17, text);  // Would block for ever: nobody reads.
  }
  ProcMgr::ReadChildMsg();
  EXPECT_TRUE(log_.WaitFor("app=camera,pid=17,xxx")) << log_.Text();
  const std::string told = "PROCMGR: anonymous pipe was full, lost child messages=";
  const auto index = log_.WaitFor(told);
  ASSERT_TRUE(index.has_value()) << log_.Text();
  const int lost = std::stoi(log_.At(*index).text.substr(told.size()));
  EXPECT_GT(lost, 0);
  EXPECT_LT(lost, writes / 2);
}

TEST_F(ChildMsgPipe, WithoutAPipeEverybodySkipsTheirWork) {
  ASSERT_EQ(WriteEnd(), -1);
  ProcMgr::WriteChildMsg("camera", 17, "lost");
  ProcMgr::ReadChildMsg();  // Would block for ever on a pipe.
  EXPECT_EQ(log_.Lines().size(), 0U) << log_.Text();
}

}  // namespace
