#include "host/kernel_cmdline.h"

#include <map>
#include <string>
#include <vector>

#include "core/small_file.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using Testing::Routed;
using Testing::TakeLog;

using Words = std::set<std::string>;

TEST(SplitBootArg, CutsTheWordsBehindTheKey) {
  const struct {
    const char* line;
    Words words;
  } kCases[] = {
      {"quiet procmgr=a,b ro", {"a", "b"}},
      {"procmgr=b,a,b", {"a", "b"}},
      {"procmgr=,a,,b,", {"a", "b"}},
      {"procmgr=a", {"a"}},
      {"procmgr=", {}},
      {"procmgr", {}},   // Nothing behind the key.
      {"procmgr ", {}},  // The blank is what is skipped.
      {"procmgr= a", {}},
      {"procmgr:a", {"a"}},   // Any character is taken for the "=".
      {"xprocmgr=a", {"a"}},  // The key is found inside a longer one.
      {"procmgr=a procmgr=b", {"a"}},
      {"procmgr=a\tb", {"a\tb"}},
      {"procmg=a", {}},
      {"", {}},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(SplitBootArg(test.line, "procmgr", ','), test.words) << '"' << test.line << '"';
  }
}

TEST(SplitBootArg, SaysWhatItFound) {
  const struct {
    const char* line;
    Testing::LogLine line_of_log;
  } kCases[] = {
      {"qelmode=a", Routed(LOG_WARNING, "key=procmgr not found in cmdline.")},
      {"x procmgr=a,b c", Routed(LOG_INFO, "ProcMgr boot args, procmgr=a,b")},
      {"procmgr", Routed(LOG_WARNING, "key=procmgr has no value in cmdline.")},
  };
  for (const auto& test : kCases) {
    (void)TakeLog();
    (void)SplitBootArg(test.line, "procmgr", ',');
    EXPECT_THAT(TakeLog(), ElementsAre(test.line_of_log));
  }
}

class KernelCmdline : public Testing::HostTest {
 protected:
  // Reads both halves of a command line in the order of the boot.
  void Boot(const std::string& text) {
    ParseKernelCmdlineText(context_, text, dir_.string() + "/");
    ParseRebootReasonText(context_, text, dir_.string() + "/");
  }

  HostContext context_;
};

TEST_F(KernelCmdline, SwitchesFollowTheirWords) {
  using Services = std::map<std::string, bool>;
  const struct {
    const char* text;
    bool disableWatchDog;
    bool qelcoreEnable;
    Services services;
  } kCases[] = {
      {"", false, false, {}},
      {"ro quiet", false, false, {}},
      {"procmgr=em,nowatchdog", true, false, {{"emService.yaml", false}}},
      {"procmgr=nowatchdog,em", true, false, {{"emService.yaml", false}}},
      {"procmgr=nowatchdogs,emx", false, false, {}},
      {"qelmode=kernel_utils", false, true, {}},
      {"qelmode=kernel_utils2,nowatchdog", false, false, {}},
      {"procmgr=kernel_utils qelmode=em", false, false, {}},
      {"procmgr=nowatchdog\nprocmgr=em", true, false, {{"emService.yaml", false}}},
  };
  for (const auto& test : kCases) {
    HostContext context;
    ParseKernelCmdlineText(context, test.text, "/nowhere/");
    EXPECT_EQ(context.disableWatchDog_, test.disableWatchDog) << test.text;
    EXPECT_EQ(context.qelcoreEnable, test.qelcoreEnable) << test.text;
    EXPECT_EQ(context.optionalServices_, test.services) << test.text;
  }
}

TEST_F(KernelCmdline, EveryLineTellsItsSwitchesOnce) {
  Boot("procmgr=em");
  EXPECT_THAT(TakeLog(),
              ElementsAre(Routed(LOG_INFO, "ProcMgr boot args, procmgr=em"),
                          Routed(LOG_INFO, "ProcMgr: cmdline disableWatchDog_=0"),
                          Routed(LOG_INFO, "ProcMgr: emService.yaml need enable"),
                          Routed(LOG_WARNING, "key=qelmode not found in cmdline."),
                          Routed(LOG_INFO, "ProcMgr: cmdline qelcoreEnable=0"),
                          Routed(LOG_WARNING, "key=reboot_reason not found in cmdline.")));
}

TEST_F(KernelCmdline, ChoosesTheStartupYaml) {
  const std::string small = Write("small.yaml");
  const std::string tiny = Write("tiny.yaml");
  const std::string failOver = Write("startup_procmgr_suspend_resume_fail.yaml");
  const struct {
    std::string text;
    std::string chosen;
  } kCases[] = {
      {"procmgr=boot:small.yaml", small},
      {"procmgr=em,xboot:small.yaml", small},            // Inside a longer word.
      {"procmgr=boot:small.yaml,boot:tiny.yaml", tiny},  // The last in sorted order.
      {"procmgr=boot:small.yaml,boot:z.yaml", small},    // z.yaml doesn't exist.
      {"procmgr=boot:none.yaml", ""},
      {"procmgr=boot:" + std::string(5000, 'x'), ""},
      {"reboot_reason=SUSPEND_FAIL", failOver},
      {"reboot_reason=x_RESUME_FAIL_y", failOver},
      {"reboot_reason=POWER_LOSS,suspend_fail", ""},
      {"procmgr=boot:small.yaml reboot_reason=RESUME_FAIL", failOver},
      {"procmgr=boot:small.yaml reboot_reason=COLD", small},
  };
  for (const auto& test : kCases) {
    HostContext context;
    ParseKernelCmdlineText(context, test.text, dir_.string() + "/");
    ParseRebootReasonText(context, test.text, dir_.string() + "/");
    EXPECT_EQ(context.startupYaml_, test.chosen) << test.text;
  }
}

TEST_F(KernelCmdline, WithoutTheFailOverFileTheBootWordStands) {
  const std::string small = Write("small.yaml");
  Boot("procmgr=boot:small.yaml,boot:none.yaml reboot_reason=RESUME_FAIL");
  EXPECT_EQ(context_.startupYaml_, small);
  const auto log = TakeLog();
  EXPECT_THAT(log, Contains(Routed(LOG_INFO, "ProcMgr: cmdline cfg startup yaml: " + small)));
  EXPECT_THAT(log,
              Contains(Routed(LOG_ERR, "ProcMgr: cmdline cfg startup yaml " + Path("none.yaml") +
                                           " standardizationPath failed,use default path")));
  EXPECT_THAT(log,
              Contains(Routed(LOG_WARNING, "ProcMgr: cmdline cfg startup yaml " +
                                               Path("startup_procmgr_suspend_resume_fail.yaml") +
                                               " standardizationPath failed")));
}

TEST_F(KernelCmdline, FilesThatCannotBeReadChangeNothing) {
  const std::string tooLong = Write("long", "procmgr=em " + std::string(kConfigFileLimit, 'x'));
  for (const std::string& path : {Path("missing"), dir_.string()}) {
    ParseKernelCmdline(context_, path, "/");
    ParseRebootReason(context_, path, "/");
    EXPECT_THAT(TakeLog(), IsEmpty()) << path;
  }
  ParseKernelCmdline(context_, tooLong, "/");
  EXPECT_THAT(TakeLog(), ElementsAre(Routed(LOG_WARNING, "ProcMgr: cmdline file=" + tooLong +
                                                             " is too long, use defaults")));
  EXPECT_THAT(context_.optionalServices_, IsEmpty());
}

TEST_F(KernelCmdline, FiltersOptionalServices) {
  EXPECT_FALSE(IsOptionalServiceAllowed(context_, "/a/emService.yaml"));
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_INFO,
                                           "ProcMgr: /a/emService.yaml will not enable "
                                           "as not configured in cmdline")));
  EXPECT_TRUE(IsOptionalServiceAllowed(context_, "/a/service.yaml"));
  ReportMissingOptionalServices(context_);
  EXPECT_THAT(TakeLog(), IsEmpty());

  Boot("procmgr=em");
  (void)TakeLog();
  ReportMissingOptionalServices(context_);
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(
                             LOG_ERR, "emService.yaml need enable, but not rightly configured")));
  EXPECT_TRUE(IsOptionalServiceAllowed(context_, "/a/xemService.yaml.d/b.yaml"));
  ReportMissingOptionalServices(context_);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(KernelCmdline, UpdatesTheStartupYamlOnlyIfOneWasChosen) {
  std::string path = "/argument.yaml";
  UpdateStartupYaml(context_, path);
  EXPECT_EQ(path, "/argument.yaml");
  EXPECT_THAT(TakeLog(), IsEmpty());
  context_.startupYaml_ = "/chosen.yaml";
  UpdateStartupYaml(context_, path);
  EXPECT_EQ(path, "/chosen.yaml");
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Routed(LOG_INFO,
                         "ProcMgr: update pm startup yaml from cmdline, new path: /chosen.yaml")));
}

TEST_F(KernelCmdline, TellsSlotAndSelinux) {
  UpdateSelinuxEnable(context_);
  GetBoardInfo();
  EXPECT_THAT(TakeLog(), ElementsAre(Routed(LOG_INFO, "pm UpdateSelinuxEnable success: enable=0"),
                                     Routed(LOG_WARNING, "pm Get board info success slotId_=-1")));
}

TEST(GetSysState, NamesItsCodes) {
  const std::map<unsigned long, std::string> kNames = {
      {0, "OFF"},         {1, "WORKING"}, {2, "SUSPEND"},           {3, "UPGRADE"},
      {4, "CALIBRATION"}, {5, ""},        {128, "DELAY_BIND_CORE"}, {~0UL, ""}};
  for (const auto& [state, name] : kNames) {
    EXPECT_EQ(GetSysState(state), name) << state;
  }
}

}  // namespace
}  // namespace ProcMgr
