#include "sandbox/log_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "core/log.h"

namespace PmSandbox {
namespace {

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
          ProcMgr::LogWarning("sender[%zu]: line %zu, tid:-4 uid=5", sender, i);
        }
      });
    }
    for (std::thread& sender : senders) {
      sender.join();
    }
  }
  ASSERT_TRUE(log.WaitForCount("sender", kSenders * kLines));
  EXPECT_FALSE(log.WaitForCount("sender", kSenders * kLines + 1, std::chrono::milliseconds(1)));
  std::array<std::size_t, kSenders> next{};
  for (const LogLine& line : log.Lines()) {
    const auto sender = static_cast<std::size_t>(line.text.at(7) - '0');
    EXPECT_EQ(MaskLine(line), "4 sender[" + std::to_string(sender) + "]: line " +
                                  std::to_string(next.at(sender)++) + ", tid:# uid=5");
    EXPECT_EQ(line.ident, "PROCMGR");
    EXPECT_EQ(line.pid, getpid());
  }
}

}  // namespace
}  // namespace PmSandbox
