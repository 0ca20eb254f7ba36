#include "host/watchdog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using Testing::TakeLog;

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
  std::string link(4096, '\0');
  const ssize_t length =
      readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link.data(), link.size());
  link.resize(static_cast<std::size_t>(length < 0 ? 0 : length));
  kernel.openFile = link;
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

class WatchDog : public Testing::HostTest {
 protected:
  WatchDog() {
    kernel = {};
    system_ = {Path("modules"), Path("device"), &FakeFinitModule, &FakeIoctl};
    cfg_.koPath = Path("sbsa_gwdt.ko");
  }

  HostContext context_;
  WatchDogCfg cfg_;
  WatchDogSystem system_;
};

TEST_F(WatchDog, InsertsTheModuleOnlyIfItIsWantedAndAbsent) {
  const struct {
    const char* name;
    const char* modules;
    bool disabled, qelcore, enabled, hasFile;
    bool result;
    std::size_t insertions;
  } kCases[] = {
      {"wanted", "", false, false, true, true, true, 1},
      {"nowatchdog alone switches nothing off", "", true, false, true, true, true, 1},
      {"both words switch off, before the file is looked for", "", true, true, true, false, true,
       0},
      {"configured off, before the file is looked for", "", false, false, false, false, true, 0},
      {"no module file", "", false, true, true, false, false, 0},
      {"already there", "nf_nat 1 0\nsbsa_gwdt 16384 0 - Live\n", false, false, true, true, true,
       0},
      {"inside a longer name", "my_sbsa_gwdt2 1 0", false, false, true, true, true, 0},
      {"others only", "sbsa 1 0\n_gwdt 1 0\n", false, false, true, true, true, 1},
  };
  for (const auto& test : kCases) {
    kernel = {};
    context_.disableWatchDog_ = test.disabled;
    context_.qelcoreEnable = test.qelcore;
    cfg_.enable = test.enabled;
    std::filesystem::remove(cfg_.koPath);
    if (test.hasFile) {
      (void)Write("sbsa_gwdt.ko");
    }
    (void)Write("modules", test.modules);
    EXPECT_EQ(InsertWatchDogKo(context_, cfg_, system_), test.result) << test.name;
    EXPECT_EQ(kernel.params.size(), test.insertions) << test.name;
  }
}

TEST_F(WatchDog, TellsWhyItInsertsNothing) {
  cfg_.enable = true;
  EXPECT_FALSE(InsertWatchDogKo(context_, cfg_, system_));
  cfg_.enable = false;
  EXPECT_TRUE(InsertWatchDogKo(context_, cfg_, system_));
  context_.disableWatchDog_ = context_.qelcoreEnable = true;
  EXPECT_TRUE(InsertWatchDogKo(context_, cfg_, system_));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(
          Plain(LOG_ERR, cfg_.koPath + " is not existed errno=" + std::to_string(ENOENT)),
          Plain(LOG_WARNING, cfg_.koPath + " is disable, so not need insert"),
          Plain(LOG_WARNING, "Watchdog is disabled by cmdline parameter. Donot insert ko")));

  (void)Write("modules", "sbsa_gwdt 1 0");
  EXPECT_TRUE(IsWatchDogKoInserted("sbsa_gwdt", system_));
  std::filesystem::remove(system_.modulesFile);
  EXPECT_FALSE(IsWatchDogKoInserted("sbsa_gwdt", system_));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Plain(LOG_WARNING, "Watchdog ko=sbsa_gwdt is already insert"),
                  Plain(LOG_INFO, "Watchdog ko checking, ko=sbsa_gwdt has not been inserted")));
}

TEST_F(WatchDog, HandsTheKernelTheFileAndTheParameters) {
  (void)Write("sbsa_gwdt.ko");
  EXPECT_TRUE(InsmodKo(cfg_, system_));
  EXPECT_THAT(kernel.params, ElementsAre("timeout=60 action=2 disable_on_poweroff=1"));
  EXPECT_EQ(kernel.openFile, cfg_.koPath);
  EXPECT_THAT(TakeLog(), Contains(Plain(LOG_INFO, "Insmod " + cfg_.koPath +
                                                      " success !!!, param=timeout=60 action=2 "
                                                      "disable_on_poweroff=1")));
  cfg_.timeout = "5";
  cfg_.action = "0";
  kernel.result = -1;
  EXPECT_FALSE(InsmodKo(cfg_, system_));
  EXPECT_THAT(TakeLog(),
              Contains(Plain(LOG_ERR, "InsmodKo failed. finit_module ko=" + cfg_.koPath +
                                          " failed errno=" + std::to_string(ENOEXEC) +
                                          ", params=timeout=5 action=0 disable_on_poweroff=1")));
  cfg_.koPath = Path("missing");
  EXPECT_FALSE(InsmodKo(cfg_, system_));
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_ERR, "InsmodKo failed. open ko=" + cfg_.koPath +
                                             " failed errno=" + std::to_string(ENOENT))));
}

TEST_F(WatchDog, FeedsMilliseconds) {
  (void)Write("device");
  const struct {
    const char* timeout;
    bool result;
    unsigned long milliseconds;  // 0: the device isn't asked.
  } kCases[] = {
      {"60", true, 60000},   {"1", true, 1000},        {"2147483", true, 2147483000},
      {"2147484", false, 0}, {"2147483648", false, 0}, {"99999999999999999999", false, 0},
      {"", false, 0},
  };
  for (const auto& test : kCases) {
    kernel = {};
    cfg_.timeout = test.timeout;
    EXPECT_EQ(EnableFeedDog(cfg_, system_), test.result) << test.timeout;
    if (test.milliseconds == 0) {
      EXPECT_THAT(kernel.feeds, IsEmpty()) << test.timeout;
    } else {
      EXPECT_THAT(kernel.feeds, ElementsAre(std::pair(0xc0085701UL, test.milliseconds)));
      EXPECT_EQ(kernel.openFile, system_.feedDevice);
    }
  }
}

TEST_F(WatchDog, TellsWhyItDoesNotFeed) {
  const std::string device = system_.feedDevice;
  EXPECT_FALSE(EnableFeedDog(cfg_, system_));
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_ERR, "EnableFeedDog failed. open device=" + device +
                                             " failed errno=" + std::to_string(ENOENT))));
  (void)Write("device");
  kernel.result = -1;
  EXPECT_FALSE(EnableFeedDog(cfg_, system_));
  EXPECT_THAT(
      TakeLog(),
      Contains(Plain(LOG_ERR, "EnableFeedDog failed. ioctl failed. device=" + device +
                                  ", errno=" + std::to_string(ENOTTY) + ", timeout=60000")));
  kernel.result = 0;
  EXPECT_TRUE(EnableFeedDog(cfg_, system_));
  EXPECT_THAT(TakeLog(),
              Contains(Plain(LOG_INFO, "Enable feeding watchdog ioctl successfully, device=" +
                                           device + ", timeout=60000ms")));
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
  EXPECT_THAT(TakeLog(), Contains(Plain(LOG_ERR,
                                        "EnableFeedDog failed. ioctl failed. "
                                        "device=/dev/null, errno=" +
                                            std::to_string(ENOTTY) + ", timeout=60000")));
}

TEST_F(WatchDog, TheStepOfTheBootOnlyTells) {
  EnableWatchDog(true);
  EnableWatchDog(false);
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=1"),
                                     Plain(LOG_DEBUG, "PROCMGR : EnableWatchDog flag=0")));
}

}  // namespace
}  // namespace ProcMgr
