// The samples that users start from must be read without a complaint.
#include <algorithm>
#include <string>

#include "core/small_file.h"
#include "host/host_limits.h"
#include "host/integrity_protect.h"
#include "host/kernel_cmdline.h"
#include "host/proc_mgr_cfg.h"
#include "host/sharepool_cfg.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kSamples = PM_SAMPLES_DIR;

// The warnings and errors since the last look.
std::vector<Testing::LogLine> Complaints() {
  std::vector<Testing::LogLine> log = Testing::TakeLog();
  std::erase_if(log, [](const Testing::LogLine& line) { return line.level > LOG_WARNING; });
  return log;
}

class Samples : public Testing::HostTest {};

TEST_F(Samples, ProcMgrCfg) {
  ProcMgrCfg cfg;
  LoadProcMgrCfg(kSamples + "/procmgr_cfg.yaml", cfg);
  EXPECT_THAT(Complaints(), IsEmpty());
  EXPECT_TRUE(cfg.pmUploadEnable);
  EXPECT_EQ(cfg.delayCore, (DelayCoreSettings{10, true, 200}));
}

TEST_F(Samples, BinHash) {
  IntegrityProtect protect;
  protect.LoadHashCfg(kSamples + "/bin_hash.cfg");
  EXPECT_TRUE(protect.Check(Write("camera_service", "")));
  EXPECT_TRUE(protect.Check(Write("recorder", "abc")));
  EXPECT_FALSE(protect.Check(Write("recorder", "abcd")));
  EXPECT_THAT(Complaints(), IsEmpty());
}

TEST_F(Samples, Sharepool) {
  SharepoolCfg cfg;
  cfg.LoadSharepoolCfg(kSamples + "/sharepool");
  EXPECT_THAT(Complaints(), IsEmpty());
  ASSERT_EQ(cfg.Groups().size(), 2U);
  EXPECT_EQ(cfg.Groups()[0].memSize, 65536U);
  EXPECT_THAT(cfg.AdminProLists(), ElementsAre("pool_admin"));
  EXPECT_THAT(cfg.WhiteLists(), ElementsAre("/opt/platform/bin/pool_monitor"));
}

TEST_F(Samples, CommonEnv) {
  EXPECT_EQ(GetLockedMemoryLimitFromCfg(kSamples + "/common_env.conf"), 67108864U);
  EXPECT_THAT(Complaints(), IsEmpty());
}

TEST_F(Samples, KernelCmdline) {
  const std::string chosen = Write("startup_small.yaml");
  HostContext context;
  ParseKernelCmdline(context, kSamples + "/kernel-cmdline.txt", dir_.string() + "/");
  EXPECT_THAT(Complaints(), IsEmpty());
  EXPECT_TRUE(context.disableWatchDog_ && context.qelcoreEnable);
  EXPECT_EQ(context.startupYaml_, chosen);
  EXPECT_EQ(context.optionalServices_.size(), 1U);
}

}  // namespace
}  // namespace ProcMgr
