#include <set>
#include <string>

#include "host/sharepool_cfg.h"
#include "tests/fuzz/input_file.h"
#include "tests/unit/host/captured_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::SharepoolCfg cfg;
  cfg.LoadCfgFile(ProcMgr::Fuzz::InputFile(data, size));
  std::set<std::string> names;
  for (const ProcMgr::SharepoolGroupCfg& group : cfg.Groups()) {
    ProcMgr::Fuzz::Require(!group.groupName.empty() && names.insert(group.groupName).second);
  }
  cfg.FinishSharepoolCfg();
  ProcMgr::Fuzz::Require(cfg.GroupNames().size() == names.size() + 1);
  for (const std::string& admin : cfg.AdminProLists()) {
    ProcMgr::Fuzz::Require(cfg.GetAppSharepoolGroups(admin, {}).size() == names.size() + 1);
  }
  (void)ProcMgr::Testing::TakeLog();
  return 0;
}
