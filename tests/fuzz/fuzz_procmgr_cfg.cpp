#include "base/text.h"
#include "host/proc_mgr_cfg.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzFile;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::ProcMgrCfg cfg;
  ProcMgr::LoadProcMgrCfg(FuzzFile(data, size), cfg);
  const ProcMgr::WatchDogCfg& watchDog = cfg.watchDogCfg;
  Require(!watchDog.timeout.empty() && ProcMgr::IsStrDigits(watchDog.timeout));
  Require(watchDog.action == "0" || watchDog.action == "1" || watchDog.action == "2");
  return 0;
}
