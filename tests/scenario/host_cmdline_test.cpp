// Kernel command lines that steer the boot.

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

const std::string kDefault = "/run/sandbox/base.yaml";
const std::string kSmall = std::string(kConfigDir) + "startup_small.yaml";
const std::string kFailOver = std::string(kConfigDir) + "startup_procmgr_suspend_resume_fail.yaml";

class KernelCommandLine : public ScenarioTest {
 protected:
  // Boots with the given line. Each of the files that a line can choose starts a service of its
  // own: "plain", "small", "safe".
  std::vector<std::string> BootWith(const std::string& line, bool hasSmall = false,
                                    bool hasFailOver = false) {
    std::filesystem::remove_all(sandbox_.Outside(kConfigDir));
    if (hasSmall) {
      sandbox_.WriteFile(kSmall, ServiceFile({Service("small")}));
    }
    if (hasFailOver) {
      sandbox_.WriteFile(kFailOver, ServiceFile({Service("safe")}));
    }
    sandbox_.SetKernelCommandLine(line);
    const std::size_t before = log_.Lines().size();
    Boot({Service("plain")});
    return AwaitBoot(before);
  }

  static void ExpectStarted(const std::vector<std::string>& lines, const std::string& only) {
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=" + only + ","), 1U);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName="), 1U);
  }
};

TEST_F(KernelCommandLine, ChoosesTheFileThatIsBooted) {
  struct Case {
    std::string line;
    bool hasSmall, hasFailOver;
    std::string started;  // The one service that runs then.
    std::string said;
  };
  const std::string small = "procmgr=boot:startup_small.yaml";
  const std::string choose = "ProcMgr: cmdline cfg startup yaml ";
  const std::string chosen = "6 ProcMgr: update pm startup yaml from cmdline, new path: ";
  const std::string noFailOver = "4 " + choose + kFailOver + " standardizationPath failed";
  const Case cases[] = {
      {"quiet ro", true, true, "plain", "4 key=reboot_reason not found in cmdline."},
      {"ro " + small + " quiet", true, false, "small", chosen + kSmall},
      // The last key of a line that no newline ends.
      {"procmgr=,,em,,x-boot:startup_small.yaml,", true, false, "small", chosen + kSmall},
      {"procmgr=boot:missing.yaml\n", true, true, "plain",
       "3 " + choose + kConfigDir + "missing.yaml standardizationPath failed,use default path"},
      // Of two files the one that is there counts, though its word sorts first.
      {small + ",boot:zz.yaml", true, false, "small", chosen + kSmall},
      {small + " reboot_reason=SUSPEND_FAIL\n", true, true, "safe", chosen + kFailOver},
      {"reboot_reason=cold,PM_RESUME_FAIL_7 " + small, true, true, "safe", chosen + kFailOver},
      {small + " reboot_reason=RESUME_FAIL", true, false, "small", noFailOver},
      {"reboot_reason=RESUME_FAIL", false, false, "plain", noFailOver},
      {"reboot_reason=SUSPEND", true, true, "plain", "6 ProcMgr boot args, reboot_reason=SUSPEND"},
      {small + " reboot_reason", true, true, "small",
       "4 key=reboot_reason has no value in cmdline."},
      {"", true, true, "plain", "6 [TRACE] InitBaseApplication end"},
      {std::string("\xff\x00procmgr\x01\xfe", 11), true, true, "plain",
       "6 ProcMgr: cmdline disableWatchDog_=0"},
      {small + " " + std::string(std::size_t{1} << 20, 'x'), true, true, "plain",
       "4 ProcMgr: cmdline file=/proc/cmdline is too long, use defaults"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 100));
    const std::vector<std::string> lines = BootWith(c.line, c.hasSmall, c.hasFailOver);
    EXPECT_THAT(lines, Contains(c.said));
    ExpectStarted(lines, c.started);
  }
}

TEST_F(KernelCommandLine, SwitchesTheWatchdogOffByWholeWordsOnly) {
  struct Case {
    std::string line;
    bool isOff, isCore;
  };
  const Case cases[] = {
      {"procmgr=nowatchdog,em qelmode=kernel_utils", true, true},
      {"procmgr=em,nowatchdog qelmode=other,kernel_utils,", true, true},
      {"procmgr=xnowatchdog,nowatchdogs qelmode=kernel_util", false, false},
      {"qelmode=kernel_utils procmgr", false, true},
      {"procmgr=nowatchdog qelmode", true, false},
      // A key counts within a longer one, too.
      {"a.procmgr=nowatchdog", true, false},
      // A later line sets nothing back.
      {"procmgr=nowatchdog\nprocmgr=x\n", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const std::vector<std::string> lines = BootWith(c.line);
    EXPECT_EQ(CountLines(lines, "cmdline disableWatchDog_=1") > 0, c.isOff);
    EXPECT_EQ(CountLines(lines, "cmdline qelcoreEnable=1") > 0, c.isCore);
    ExpectStarted(lines, "plain");
  }
}

TEST_F(KernelCommandLine, OptionalServiceTakesPartOnlyIfItIsAskedFor) {
  struct Case {
    std::string line;
    bool hasManifest, starts;
    std::string text;
  };
  const std::string manifest = "/run/sandbox/emService.yaml";
  const std::string needed = "6 ProcMgr: emService.yaml need enable";
  const std::string passed = " will not enable as not configured in cmdline";
  const Case cases[] = {
      {"procmgr=nowatchdog,em", true, true, needed},
      {"procmgr=emx", true, false, "6 ProcMgr: " + manifest + passed},
      {"quiet", true, false, "6 ProcMgr: " + manifest + passed},
      {"procmgr=em", false, false, "3 emService.yaml need enable, but not rightly configured"},
  };
  const std::string plain = ServiceFile({Service("plain")});
  sandbox_.WriteFile(manifest, ServiceFile({Service("EM")}));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line + (c.hasManifest ? "" : " without a manifest"));
    sandbox_.WriteFile(kDefault, plain + (c.hasManifest ? "  - include: emService.yaml\n" : ""));
    sandbox_.SetKernelCommandLine(c.line);
    const std::size_t before = log_.Lines().size();
    Start({kDefault});
    const std::vector<std::string> lines = AwaitBoot(before);
    EXPECT_EQ(CountLines(lines, c.text), 1U);
    EXPECT_EQ(CountLines(lines, "not rightly configured"), c.hasManifest ? 0U : 1U);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=EM,"), c.starts ? 1U : 0U);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
  }
}

}  // namespace
}  // namespace PmTest
