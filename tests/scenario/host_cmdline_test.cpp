// Kernel command lines that steer the boot.
#include "tests/scenario/host_test.h"

namespace PmTest {
namespace {

using ::testing::IsSupersetOf;

const std::string kDefault = "/run/sandbox/base.yaml";
const std::string kSmall = std::string(kConfigDir) + "startup_small.yaml";
const std::string kFailOver = std::string(kConfigDir) + "startup_procmgr_suspend_resume_fail.yaml";
const std::string kChosen = "6 ProcMgr: cmdline cfg startup yaml: ";

std::string NotFound(const std::string& key) {
  return "4 key=" + key + " not found in cmdline.";
}

class KernelCommandLine : public HostTest {
 protected:
  // Boots with the given line. Each of the files that a line can choose starts a service of its
  // own: "plain", "small", "safe".
  std::vector<std::string> BootWith(const std::string& line, bool hasSmall, bool hasFailOver) {
    Remove(kConfigDir);
    sandbox_.WriteFile(kDefault, ServiceFile({{"plain", kService, {}, {}}}));
    if (hasSmall) {
      sandbox_.WriteFile(kSmall, ServiceFile({{"small", kService, {}, {}}}));
    }
    if (hasFailOver) {
      sandbox_.WriteFile(kFailOver, ServiceFile({{"safe", kService, {}, {}}}));
    }
    sandbox_.SetKernelCommandLine(line);
    const std::size_t before = log_.Lines().size();
    Start({kDefault});
    return AwaitBoot(before);
  }
};

TEST_F(KernelCommandLine, ChoosesTheFileThatIsBooted) {
  struct Case {
    std::string line;
    bool hasSmall;
    bool hasFailOver;
    std::string started;  // The one service that runs then.
    std::vector<std::string> lines;
  };
  const std::string procMgr = "procmgr=boot:startup_small.yaml";
  const std::string missing = std::string(kConfigDir) + "missing.yaml";
  const Case cases[] = {
      {"quiet ro",
       true,
       true,
       "plain",
       {NotFound("procmgr"), NotFound("qelmode"), NotFound("reboot_reason")}},
      {"ro " + procMgr + " quiet",
       true,
       false,
       "small",
       {kChosen + kSmall, "6 ProcMgr: update pm startup yaml from cmdline, new path: " + kSmall,
        "6 ProcMgr boot args, procmgr=boot:startup_small.yaml"}},
      // The last key of a line that no newline ends.
      {"procmgr=,,em,,x-boot:startup_small.yaml,", true, false, "small", {kChosen + kSmall}},
      {"procmgr=boot:missing.yaml\n",
       true,
       true,
       "plain",
       {"3 ProcMgr: cmdline cfg startup yaml " + missing +
        " standardizationPath failed,use default path"}},
      // Of two files the one that is there counts, though its word sorts first.
      {"procmgr=boot:startup_small.yaml,boot:zz.yaml", true, false, "small", {kChosen + kSmall}},
      {procMgr + " reboot_reason=SUSPEND_FAIL\n",
       true,
       true,
       "safe",
       {kChosen + kSmall, kChosen + kFailOver,
        "6 ProcMgr: update pm startup yaml from cmdline, new path: " + kFailOver}},
      {"reboot_reason=cold,PM_RESUME_FAIL_7 " + procMgr, true, true, "safe", {kChosen + kFailOver}},
      {procMgr + " reboot_reason=RESUME_FAIL",
       true,
       false,
       "small",
       {"4 ProcMgr: cmdline cfg startup yaml " + kFailOver + " standardizationPath failed"}},
      {"reboot_reason=RESUME_FAIL",
       false,
       false,
       "plain",
       {"4 ProcMgr: cmdline cfg startup yaml " + kFailOver + " standardizationPath failed"}},
      {"reboot_reason=SUSPEND",
       true,
       true,
       "plain",
       {"6 ProcMgr boot args, reboot_reason=SUSPEND"}},
      {procMgr + " reboot_reason",
       true,
       true,
       "small",
       {"4 key=reboot_reason has no value in cmdline."}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const std::vector<std::string> lines = BootWith(c.line, c.hasSmall, c.hasFailOver);
    EXPECT_THAT(lines, IsSupersetOf(c.lines));
    for (const std::string name : {"plain", "small", "safe"}) {
      EXPECT_EQ(CountLines(lines, "Start baseApp success appName=" + name + ","),
                name == c.started ? 1U : 0U)
          << name;
    }
  }
}

// A folder is found like a file. Nothing can be booted from it, and the manager says so and stays.
TEST_F(KernelCommandLine, BootWordWithoutAFileLeavesNothingToStart) {
  sandbox_.WriteFile(kSmall, ServiceFile({{"small", kService, {}, {}}}));
  sandbox_.SetKernelCommandLine("procmgr=boot: quiet");
  Boot({{"plain", kService, {}, {}}});
  const std::string folder = std::string(kConfigDir).substr(0, std::string(kConfigDir).size() - 1);
  ASSERT_TRUE(log_.WaitFor("PROCMGR : ParseYamlFile failed, ProcMgr return").has_value());
  EXPECT_EQ(log_.Count("ProcMgr: update pm startup yaml from cmdline, new path: " + folder), 1U);
  EXPECT_EQ(log_.Count("Start baseApp success"), 0U);
  EXPECT_TRUE(daemon_->IsRunning());
}

TEST_F(KernelCommandLine, SwitchesTheWatchdogOffByWholeWordsOnly) {
  struct Case {
    std::string line;
    std::vector<std::string> lines;
  };
  const std::string off = "6 ProcMgr: cmdline disableWatchDog_=";
  const std::string core = "6 ProcMgr: cmdline qelcoreEnable=";
  const Case cases[] = {
      {"procmgr=nowatchdog,em qelmode=kernel_utils", {off + "1", core + "1"}},
      {"procmgr=em,nowatchdog qelmode=other,kernel_utils,", {off + "1", core + "1"}},
      {"procmgr=xnowatchdog,nowatchdogs qelmode=kernel_util", {off + "0", core + "0"}},
      {"qelmode=kernel_utils", {off + "0", core + "1", NotFound("procmgr")}},
      {"qelmode=kernel_utils procmgr",
       {off + "0", core + "1", "4 key=procmgr has no value in cmdline."}},
      {"procmgr=nowatchdog qelmode",
       {off + "1", core + "0", "4 key=qelmode has no value in cmdline."}},
      // A key counts within a longer one, too.
      {"a.procmgr=nowatchdog", {off + "1", core + "0"}},
      // A later line sets nothing back.
      {"procmgr=nowatchdog\nprocmgr=x\n", {off + "1", core + "0"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const std::vector<std::string> lines = BootWith(c.line, false, false);
    EXPECT_THAT(lines, IsSupersetOf(c.lines));
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
  }
}

TEST_F(KernelCommandLine, WithoutALineAllDefaultsStand) {
  // An empty file, one that is no command line at all, and one that is far too long.
  const std::vector<std::string> none = BootWith("", true, true);
  EXPECT_EQ(CountLines(none, "in cmdline"), 0U);
  EXPECT_EQ(CountLines(none, "ProcMgr boot args"), 0U);
  EXPECT_EQ(CountLines(none, "Start baseApp success appName=plain,"), 1U);

  const std::vector<std::string> binary =
      BootWith(std::string("\xff\x00procmgr\x01\xfe", 11), true, true);
  EXPECT_EQ(CountLines(binary, "Start baseApp success appName=plain,"), 1U);
  EXPECT_EQ(CountLines(binary, "cmdline disableWatchDog_=0"), 1U);

  const std::string tooLong =
      "procmgr=boot:startup_small.yaml " + std::string(std::size_t{1} << 20, 'x');
  const std::vector<std::string> lines = BootWith(tooLong, true, true);
  EXPECT_EQ(CountLines(lines, "4 ProcMgr: cmdline file=/proc/cmdline is too long, use defaults"),
            2U);
  EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
}

TEST_F(KernelCommandLine, OptionalServiceTakesPartOnlyIfItIsAskedFor) {
  struct Case {
    std::string line;
    bool hasManifest;
    std::size_t starts;
    std::string text;
  };
  const std::string manifest = "/run/sandbox/emService.yaml";
  const Case cases[] = {
      {"procmgr=em", true, 1, "6 ProcMgr: emService.yaml need enable"},
      {"procmgr=nowatchdog,em", true, 1, "6 ProcMgr: emService.yaml need enable"},
      {"procmgr=emx", true, 0,
       "6 ProcMgr: " + manifest + " will not enable as not configured in cmdline"},
      {"quiet", true, 0,
       "6 ProcMgr: " + manifest + " will not enable as not configured in cmdline"},
      {"procmgr=em", false, 0, "3 emService.yaml need enable, but not rightly configured"},
  };
  const std::string app = "    uid: 0\n    gid: 0\n    binPath: " + std::string(kService) + "\n";
  sandbox_.WriteFile(manifest, "applications:\n  - appName: EM\n" + app);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line + (c.hasManifest ? "" : " without a manifest"));
    sandbox_.WriteFile(kDefault, std::string("applications:\n") +
                                     (c.hasManifest ? "  - include: emService.yaml\n" : "") +
                                     "  - appName: plain\n" + app);
    sandbox_.SetKernelCommandLine(c.line);
    const std::size_t before = log_.Lines().size();
    Start({kDefault});
    const std::vector<std::string> lines = AwaitBoot(before);
    EXPECT_EQ(CountLines(lines, c.text), 1U);
    EXPECT_EQ(CountLines(lines, "not rightly configured"), c.hasManifest ? 0U : 1U);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=EM,"), c.starts);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
  }
}

}  // namespace
}  // namespace PmTest
