#include "host/watchdog.h"

#include "tests/support/taken_log.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

using PmTest::TakeLog;

// What the operations asked of the kernel, and what it answers. Plain function pointers take no
// state along.
struct Kernel {
  int result = 0;
  std::vector<std::string> params;
  std::vector<std::pair<unsigned long, unsigned long>> feeds;
  std::string openFile;
};
Kernel kernel;

void NoteFile(int fd) {
  kernel.openFile = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

int FakeFinitModule(int fd, const char* params, int flags) {
  NoteFile(fd);
  EXPECT_EQ(flags, 0);
  kernel.params.emplace_back(params);
  errno = ENOEXEC;
  return kernel.result;
}

int FakeIoctl(int fd, unsigned long request, unsigned long argument) {
  NoteFile(fd);
  kernel.feeds.emplace_back(request, argument);
  errno = ENOTTY;
  return kernel.result;
}

class WatchDog : public ::testing::Test, protected PmTest::TempFolder {
 protected:
  WatchDog() {
    kernel = {};
    cfg_.koPath = Path("sbsa_gwdt.ko");
  }

  HostContext context_;
  WatchDogCfg cfg_;
  WatchDogSystem system_{Path("modules"), Path("device"), &FakeFinitModule, &FakeIoctl};
};

TEST_F(WatchDog, InsertsTheModuleOnlyIfItIsWantedAndAbsent) {
  const struct {
    const char* name;
    const char* modules;
    bool disabled, qelcore, enabled, hasFile, result;
    std::size_t insertions;
  } kCases[] = {
      {"wanted", "", false, false, true, true, true, 1},
      {"nowatchdog alone switches nothing off", "", true, false, true, true, true, 1},
      {"both words come before the file", "", true, true, true, false, true, 0},
      {"the switch comes before the file", "", false, false, false, false, true, 0},
      {"no module file", "", false, true, true, false, false, 0},
      {"already there", "nf_nat 1 0\nsbsa_gwdt 16 0\n", false, false, true, true, true, 0},
      {"inside a longer name", "my_sbsa_gwdt2 1 0", false, false, true, true, true, 0},
      {"others only", "sbsa 1 0\n_gwdt 1 0\n", false, false, true, true, true, 1},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    kernel = {};
    context_.disableWatchDog_ = test.disabled;
    context_.qelcoreEnable = test.qelcore;
    cfg_.enable = test.enabled;
    std::filesystem::remove(cfg_.koPath);
    if (test.hasFile) {
      Write("sbsa_gwdt.ko", "");
    }
    Write("modules", test.modules);
    EXPECT_EQ(InsertWatchDogKo(context_, cfg_, system_), test.result);
    EXPECT_EQ(kernel.params.size(), test.insertions);
  }
}

TEST_F(WatchDog, HandsTheKernelTheFileAndTheParameters) {
  Write("sbsa_gwdt.ko", "");
  EXPECT_TRUE(InsmodKo(cfg_, system_));
  EXPECT_THAT(kernel.params, ElementsAre("timeout=60 action=2 disable_on_poweroff=1"));
  EXPECT_EQ(kernel.openFile, cfg_.koPath);
  cfg_.timeout = "5";
  cfg_.action = "0";
  kernel.result = -1;
  EXPECT_FALSE(InsmodKo(cfg_, system_));
  EXPECT_THAT(TakeLog(), Contains("E InsmodKo failed. finit_module ko=" + cfg_.koPath +
                                  " failed errno=" + std::to_string(ENOEXEC) +
                                  ", params=timeout=5 action=0 disable_on_poweroff=1"));
  cfg_.koPath = Path("missing");
  EXPECT_FALSE(InsmodKo(cfg_, system_));
}

TEST_F(WatchDog, FeedsMilliseconds) {
  EXPECT_FALSE(EnableFeedDog(cfg_, system_)) << "without a device";
  Write("device", "");
  const struct {
    const char* timeout;
    unsigned long milliseconds;  // 0: the device isn't asked.
  } kCases[] = {{"60", 60000}, {"1", 1000}, {"2147483", 2147483000},    {"2147484", 0},
                {"-1", 0},     {"", 0},     {"99999999999999999999", 0}};
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.timeout);
    kernel = {};
    cfg_.timeout = test.timeout;
    EXPECT_EQ(EnableFeedDog(cfg_, system_), test.milliseconds != 0);
    if (test.milliseconds == 0) {
      EXPECT_THAT(kernel.feeds, IsEmpty());
    } else {
      EXPECT_THAT(kernel.feeds, ElementsAre(std::pair(0xc0085701UL, test.milliseconds)));
      EXPECT_EQ(kernel.openFile, system_.feedDevice);
    }
  }
}

// Without a seam: the calls reach the kernel, which refuses what it is given here.
TEST_F(WatchDog, TheRealCallsReachTheKernel) {
  const WatchDogSystem real;
  errno = 0;
  EXPECT_NE(real.finitModule(-1, "", 0), 0);
  EXPECT_THAT(errno, ::testing::AnyOf(EBADF, EPERM, ENOSYS));
  system_.feedIoctl = real.feedIoctl;
  system_.feedDevice = "/dev/null";
  EXPECT_FALSE(EnableFeedDog(cfg_, system_));
  EXPECT_THAT(TakeLog(), Contains("E EnableFeedDog failed. ioctl failed. device=/dev/null, errno=" +
                                  std::to_string(ENOTTY) + ", timeout=60000"));
}

}  // namespace
}  // namespace ProcMgr
