#include "core/text.h"
#include "host/proc_mgr_cfg.h"
#include "tests/fuzz/input_file.h"
#include "tests/unit/host/captured_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::ProcMgrCfg cfg;
  ProcMgr::LoadProcMgrCfg(ProcMgr::Fuzz::InputFile(data, size), cfg);
  const ProcMgr::WatchDogCfg& watchDog = cfg.watchDogCfg;
  ProcMgr::Fuzz::Require(!watchDog.timeout.empty() && ProcMgr::IsStrDigits(watchDog.timeout));
  ProcMgr::Fuzz::Require(watchDog.action == "0" || watchDog.action == "1" ||
                         watchDog.action == "2");
  (void)ProcMgr::Testing::TakeLog();
  return 0;
}
