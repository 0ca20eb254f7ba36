#include <string_view>
#include <vector>

#include "host/core_affinity_mgr.h"
#include "tests/fuzz/input_file.h"
#include "tests/unit/host/captured_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  std::vector<std::uint32_t> cores;
  ProcMgr::ParseCpuLine("path", line, cores);
  if (line.find('-') == std::string_view::npos) {
    ProcMgr::Fuzz::Require(cores.size() <= 129);
  } else {
    for (const std::uint32_t core : cores) {
      ProcMgr::Fuzz::Require(core < 1024);
    }
  }
  (void)ProcMgr::Testing::TakeLog();
  return 0;
}
