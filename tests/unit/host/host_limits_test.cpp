#include "host/host_limits.h"

#include <sched.h>
#include <unistd.h>

#include <string>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using Testing::TakeLog;

constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};

using HostLimits = Testing::HostTest;

TEST_F(HostLimits, ReadsTheLockedMemoryLimit) {
  const std::string key = "MAX_LOCKED_MEMORY_LIMIT=";
  const struct {
    std::string text;
    std::uint64_t limit;
  } kCases[] = {
      {"", kUnlimited},
      {"A=1\n" + key + "2\n" + key + "3\n", 2},
      {key + " 12 unlimited\n", kUnlimited},
      // A comment that mentions the key is no setting.
      {"# " + key + "1\n" + key + "4096\n", 4096},
      {std::string(5000, 'x') + "\n" + key + "7", 7},
      // No numbers of bytes, and used all the same.
      {key, 0},
      {key + "64K", 64},
      {key + "99999999999999999999", kUnlimited},
      {key + "-1", kUnlimited},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(ParseLockedMemoryLimit(test.text), test.limit) << test.text;
  }
}

TEST_F(HostLimits, ALineWithoutAHomeDirectoryGivesNone) {
  for (const char* const line : {"me:x:1000:1000:::\n", "1000:1000/no/colon/behind\n"}) {
    InquireHomeEnvVariable(Write("passwd", line));
    EXPECT_EQ(homeEnvValue, "");
    EXPECT_THAT(TakeLog(), ElementsAre("RW PROCMGR: InquireHomeEnvVariable line of 1000:1000 has "
                                       "no home directory"));
  }
}

TEST_F(HostLimits, SetsTheKernelPolicy) {
  const struct {
    std::uint32_t number;
    int policy;
  } kCases[] = {{0, SCHED_OTHER}, {1, SCHED_BATCH}, {2, SCHED_IDLE},  {3, SCHED_FIFO},
                {4, SCHED_RR},    {5, SCHED_BATCH}, {6, SCHED_OTHER}, {~0U, SCHED_OTHER}};
  // In a child: the policy of the test program itself stays.
  const auto setAndCheck = [](std::uint32_t number, int policy) {
    // 5 must leave what it finds; everything else must change it.
    sched_param param{};
    std::string err;
    if (sched_setscheduler(0, SCHED_BATCH, &param) != 0) {
      _exit(2);
    }
    SetSchedPolicy(getpid(), number, err);
    const bool isSet = sched_getscheduler(0) == policy && sched_getparam(0, &param) == 0 &&
                       param.sched_priority == sched_get_priority_max(policy);
    _exit(err.empty() && isSet ? 0 : 1);
  };
  for (const auto& test : kCases) {
    const bool isRealTime = test.policy == SCHED_FIFO || test.policy == SCHED_RR;
    if (isRealTime && geteuid() != 0) {
      continue;  // Only a privileged process may raise itself.
    }
    EXPECT_EXIT(setAndCheck(test.number, test.policy), ExitedWithCode(0), "") << test.number;
  }
}

}  // namespace
}  // namespace ProcMgr
