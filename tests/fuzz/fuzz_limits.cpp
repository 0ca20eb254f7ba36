#include "host/host_limits.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzFile;
using PmTest::FuzzText;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = FuzzText(data, size);
  const std::uint64_t limit = ProcMgr::ParseLockedMemoryLimit(text);
  if (text.find("MAX_LOCKED_MEMORY_LIMIT=") == std::string_view::npos) {
    Require(limit == ~std::uint64_t{0});
  }
  ProcMgr::homeEnvValue.clear();
  ProcMgr::InquireHomeEnvVariable(FuzzFile(data, size));
  Require(ProcMgr::homeEnvValue.empty() || ProcMgr::homeEnvValue.starts_with('/'));
  return 0;
}
