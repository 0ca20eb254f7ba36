#include "host/host_limits.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using Testing::Plain;
using Testing::Routed;
using Testing::TakeLog;

constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};

class HostLimits : public Testing::HostTest {};

TEST_F(HostLimits, ReadsTheLockedMemoryLimit) {
  const Testing::LogLine noLimit =
      Plain(LOG_INFO,
            "PROCMGR: GetLockedMemoryLimitFromCfg not find MAX_LOCKED_MEMORY_LIMIT= limit cfg, "
            "return default");
  const Testing::LogLine unlimited =
      Plain(LOG_INFO, "PROCMGR: GetLockedMemoryLimitFromCfg limit is unlimited");
  const auto value = [](const char* text) {
    return Plain(LOG_INFO, std::string("PROCMGR: GetLockedMemoryLimitFromCfg limit value=") + text);
  };
  const struct {
    std::string text;
    std::uint64_t limit;
    Testing::LogLine line;
  } kCases[] = {
      {"", kUnlimited, noLimit},
      {"OTHER=1\n", kUnlimited, noLimit},
      {"MAX_LOCKED_MEMORY_LIMIT=65536\n", 65536, value("65536\n")},
      {"MAX_LOCKED_MEMORY_LIMIT=65536", 65536, value("65536")},
      {"A=1\nMAX_LOCKED_MEMORY_LIMIT=2\nMAX_LOCKED_MEMORY_LIMIT=3\n", 2, value("2\n")},
      {"MAX_LOCKED_MEMORY_LIMIT=unlimited\n", kUnlimited, unlimited},
      {"MAX_LOCKED_MEMORY_LIMIT= 12 unlimited\n", kUnlimited, unlimited},
      {"MAX_LOCKED_MEMORY_LIMIT=18446744073709551615\n", kUnlimited,
       value("18446744073709551615\n")},
      // A comment that mentions the key is no setting.
      {"# MAX_LOCKED_MEMORY_LIMIT=1\n", kUnlimited, noLimit},
      {"# MAX_LOCKED_MEMORY_LIMIT=1\nMAX_LOCKED_MEMORY_LIMIT=4096\n", 4096, value("4096\n")},
      {std::string(5000, 'x') + "\nMAX_LOCKED_MEMORY_LIMIT=7\n", 7, value("7\n")},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(ParseLockedMemoryLimit(test.text), test.limit) << test.text;
    EXPECT_THAT(TakeLog(), ElementsAre(test.line)) << test.text;
  }
}

TEST_F(HostLimits, ALimitThatIsNoNumberIsUsedWithAWarning) {
  const struct {
    const char* value;
    std::uint64_t limit;
  } kCases[] = {
      {"", 0}, {"none", 0}, {"64K", 64}, {"99999999999999999999", kUnlimited}, {"-1", kUnlimited}};
  for (const auto& test : kCases) {
    EXPECT_EQ(ParseLockedMemoryLimit(std::string("MAX_LOCKED_MEMORY_LIMIT=") + test.value),
              test.limit)
        << test.value;
    EXPECT_THAT(
        TakeLog(),
        Contains(Plain(LOG_WARNING, std::string("PROCMGR: GetLockedMemoryLimitFromCfg value=") +
                                        test.value + " is no number of bytes")));
  }
}

TEST_F(HostLimits, ALimitsFileThatCannotBeReadMeansUnlimited) {
  EXPECT_EQ(GetLockedMemoryLimitFromCfg(Path("missing")), kUnlimited);
  EXPECT_EQ(GetLockedMemoryLimitFromCfg(dir_.string()), kUnlimited);
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(
          Plain(LOG_WARNING, "GetLockedMemoryLimitFromCfg fopen " + Path("missing") +
                                 " fail,errno=" + std::to_string(ENOENT) + ", return default"),
          Plain(LOG_WARNING, "GetLockedMemoryLimitFromCfg fopen " + dir_.string() +
                                 " fail,errno=" + std::to_string(EISDIR) + ", return default")));
}

// Runs in a child: the limit of the test program itself stays.
TEST_F(HostLimits, SetsSoftAndHardLimit) {
  const std::string path = Write("env.conf", "MAX_LOCKED_MEMORY_LIMIT=4096\n");
  const auto setAndCheck = [&path] {
    SetLockedMemoryLimit(path);
    rlimit limit{};
    const auto log = TakeLog();
    const bool isSet =
        getrlimit(RLIMIT_MEMLOCK, &limit) == 0 && limit.rlim_cur == 4096 && limit.rlim_max == 4096;
    const bool isTold =
        !log.empty() &&
        log.back() == Routed(LOG_INFO, "PROCMGR: SetLockedMemoryLimit success limit value=4096 ");
    _exit(isSet && isTold ? 0 : 1);
  };
  EXPECT_EXIT(setAndCheck(), ExitedWithCode(0), "");
}

TEST_F(HostLimits, FindsTheHomeDirectory) {
  const std::string notFound = "PROCMGR: InquireHomeEnvVariable not find 1000:1000 env";
  const std::string noHome =
      "PROCMGR: InquireHomeEnvVariable line of 1000:1000 has no home directory";
  const struct {
    std::string text;
    std::string home;
    Testing::LogLine line;
  } kCases[] = {
      {"root:x:0:0:root:/root:/bin/sh\nme:x:1000:1000:Me:/home/me:/bin/sh\n", "/home/me",
       Routed(LOG_INFO, "PROCMGR: InquireHomeEnvVariable finished home env=/home/me ")},
      {"me:x:1000:1000::/home/me:", "/home/me",
       Routed(LOG_INFO, "PROCMGR: InquireHomeEnvVariable finished home env=/home/me ")},
      {"me:x:1000:100:Me:/home/me:/bin/sh\n", "", Routed(LOG_INFO, notFound)},
      {"", "", Routed(LOG_INFO, notFound)},
      {"me:x:1000:1000:::\n", "", Routed(LOG_WARNING, noHome)},
      {"1000:1000/no/colon/behind\n", "", Routed(LOG_WARNING, noHome)},
  };
  for (const auto& test : kCases) {
    homeEnvValue.clear();
    InquireHomeEnvVariable(Write("passwd", test.text));
    EXPECT_EQ(homeEnvValue, test.home) << test.text;
    EXPECT_THAT(TakeLog(), ElementsAre(test.line)) << test.text;
  }
  InquireHomeEnvVariable(Path("missing"));
  EXPECT_THAT(TakeLog(), ElementsAre(Routed(LOG_ERR, "fopen " + Path("missing") + " fail, errno=" +
                                                         std::to_string(ENOENT))));
}

TEST_F(HostLimits, SetsTheKernelPolicy) {
  const struct {
    std::uint32_t number;
    int policy;
  } kCases[] = {{0, SCHED_OTHER}, {1, SCHED_BATCH}, {2, SCHED_IDLE},  {3, SCHED_FIFO},
                {4, SCHED_RR},    {5, SCHED_BATCH}, {6, SCHED_OTHER}, {~0U, SCHED_OTHER}};
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

TEST_F(HostLimits, ARefusedPolicyIsToldInTheErrorText) {
  std::string err = "before;";
  SetSchedPolicy(-1, 0, err);
  EXPECT_EQ(err, "before;sched_setscheduler failed errno=" + std::to_string(EINVAL) + ";");
}

}  // namespace
}  // namespace ProcMgr
