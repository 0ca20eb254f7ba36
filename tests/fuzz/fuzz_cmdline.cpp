#include "host/kernel_cmdline.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzText;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = FuzzText(data, size);
  for (const std::string& word : ProcMgr::SplitBootArg(text, "procmgr", ',')) {
    Require(!word.empty() && word.find_first_of(", ") == std::string::npos);
  }
  ProcMgr::HostContext context;
  ProcMgr::ParseKernelCmdlineText(context, text, "/tmp/");
  ProcMgr::ParseRebootReasonText(context, text, "/tmp/");
  std::string path = "/argument";
  ProcMgr::UpdateStartupYaml(context, path);
  Require(path.starts_with('/'));
  return 0;
}
