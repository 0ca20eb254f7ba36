#include "host/kernel_cmdline.h"

#include <set>
#include <string>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

TEST(SplitBootArg, CutsTheWordsBehindTheKey) {
  const struct {
    const char* line;
    std::set<std::string> words;
  } kCases[] = {
      {"quiet procmgr=b,a,b ro", {"a", "b"}},
      {"procmgr=,a,,b,", {"a", "b"}},
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

using KernelCmdline = Testing::HostTest;

TEST_F(KernelCmdline, WordsMoveSwitchesAndChooseFiles) {
  const std::string small = Write("small.yaml", "");
  const std::string tiny = Write("tiny.yaml", "");
  const std::string failOver = Write("startup_procmgr_suspend_resume_fail.yaml", "");
  const struct {
    std::string text;
    bool disableWatchDog;
    bool qelcoreEnable;
    bool isEmWanted;
    std::string chosen;
  } kCases[] = {
      {"ro quiet", false, false, false, ""},
      {"procmgr=nowatchdogs,emx qelmode=kernel_utils2,nowatchdog", false, false, false, ""},
      {"procmgr=kernel_utils qelmode=em", false, false, false, ""},
      // A later line sets nothing back.
      {"procmgr=nowatchdog qelmode=kernel_utils\nprocmgr=em", true, true, true, ""},
      // The last that exists, in sorted order.
      {"procmgr=boot:tiny.yaml,boot:small.yaml,boot:z.yaml", false, false, false, tiny},
      {"procmgr=boot:" + std::string(5000, 'x'), false, false, false, ""},
      {"procmgr=boot:small.yaml reboot_reason=POWER,suspend_fail", false, false, false, small},
      {"procmgr=boot:small.yaml reboot_reason=x_RESUME_FAIL_y", false, false, false, failOver},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.text);
    HostContext context;
    ParseKernelCmdlineText(context, test.text, Path(""));
    ParseRebootReasonText(context, test.text, Path(""));
    EXPECT_EQ(context.disableWatchDog_, test.disableWatchDog);
    EXPECT_EQ(context.qelcoreEnable, test.qelcoreEnable);
    EXPECT_EQ(context.optionalServices_.contains("emService.yaml"), test.isEmWanted);
    EXPECT_EQ(context.startupYaml_, test.chosen);
  }
}

TEST(GetSysState, NamesItsCodes) {
  EXPECT_EQ(GetSysState(1), "WORKING");
  EXPECT_EQ(GetSysState(128), "DELAY_BIND_CORE");
  EXPECT_EQ(GetSysState(~0UL), "");
}

}  // namespace
}  // namespace ProcMgr
