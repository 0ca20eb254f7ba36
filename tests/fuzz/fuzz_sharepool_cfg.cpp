#include <set>
#include <string>

#include "host/sharepool_cfg.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzFile;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcMgr::SharepoolCfg cfg;
  cfg.LoadCfgFile(FuzzFile(data, size));
  std::set<std::string> names;
  for (const ProcMgr::SharepoolGroupCfg& group : cfg.Groups()) {
    Require(!group.groupName.empty() && names.insert(group.groupName).second);
  }
  cfg.FinishSharepoolCfg();
  Require(cfg.GroupNames().size() == names.size() + 1);
  for (const std::string& admin : cfg.AdminProLists()) {
    Require(cfg.GetAppSharepoolGroups(admin, {}).size() == names.size() + 1);
  }
  return 0;
}
