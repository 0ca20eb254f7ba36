#include <string_view>

#include "host/kernel_cmdline.h"
#include "tests/fuzz/input_file.h"
#include "tests/unit/host/captured_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string& word : ProcMgr::SplitBootArg(text, "procmgr", ',')) {
    ProcMgr::Fuzz::Require(!word.empty() && word.find_first_of(", ") == std::string::npos);
  }
  ProcMgr::HostContext context;
  ProcMgr::ParseKernelCmdlineText(context, text, "/tmp/");
  ProcMgr::ParseRebootReasonText(context, text, "/tmp/");
  std::string path = "/argument";
  ProcMgr::UpdateStartupYaml(context, path);
  ProcMgr::Fuzz::Require(path.starts_with('/'));
  (void)ProcMgr::Testing::TakeLog();
  return 0;
}
