#include "host/kernel_cmdline.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

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

TEST(GetSysState, NamesItsCodes) {
  EXPECT_EQ(GetSysState(1), "WORKING");
  EXPECT_EQ(GetSysState(128), "DELAY_BIND_CORE");
  EXPECT_EQ(GetSysState(~0UL), "");
}

}  // namespace
}  // namespace ProcMgr
