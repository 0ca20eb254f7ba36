#include <vector>

#include "host/core_affinity_mgr.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzText;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line = FuzzText(data, size);
  std::vector<std::uint32_t> cores;
  ProcMgr::ParseCpuLine("path", line, cores);
  if (line.find('-') == std::string_view::npos) {
    Require(cores.size() <= 129);
  } else {
    for (const std::uint32_t core : cores) {
      Require(core < 1024);
    }
  }
  return 0;
}
