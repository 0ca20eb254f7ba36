#include "host/integrity_protect.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzText;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = FuzzText(data, size);
  ProcMgr::IntegrityProtect protect;
  protect.ParseHashCfg(text);
  // A key holds no '=', so no table lists this name; and a listed name with a blank is refused
  // before a shell sees it.
  Require(protect.Check("/bin/no=key"));
  if (text.starts_with("a b=c\n")) {
    Require(!protect.Check("/bin/a b"));
  }
  return 0;
}
