#include <string_view>

#include "host/host_limits.h"
#include "tests/fuzz/input_file.h"
#include "tests/unit/host/captured_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::uint64_t limit = ProcMgr::ParseLockedMemoryLimit(text);
  if (text.find("MAX_LOCKED_MEMORY_LIMIT=") == std::string_view::npos) {
    ProcMgr::Fuzz::Require(limit == ~std::uint64_t{0});
  }
  ProcMgr::homeEnvValue.clear();
  ProcMgr::InquireHomeEnvVariable(ProcMgr::Fuzz::InputFile(data, size));
  ProcMgr::Fuzz::Require(ProcMgr::homeEnvValue.empty() || ProcMgr::homeEnvValue.starts_with('/'));
  (void)ProcMgr::Testing::TakeLog();
  return 0;
}
