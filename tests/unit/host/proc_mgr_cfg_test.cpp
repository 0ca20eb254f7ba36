#include "host/proc_mgr_cfg.h"

#include <algorithm>
#include <string>
#include <vector>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using Testing::TakeLog;

class ProcMgrCfgFile : public Testing::HostTest {
 protected:
  [[nodiscard]] ProcMgrCfg Load(const std::string& text) const {
    (void)TakeLog();
    ProcMgrCfg cfg;
    LoadProcMgrCfg(Write("procmgr_cfg.yaml", text), cfg);
    return cfg;
  }
  // How many warnings and errors the load has logged.
  [[nodiscard]] static std::ptrdiff_t Complaints() {
    const std::vector<std::string> log = TakeLog();
    return std::ranges::count_if(log,
                                 [](const std::string& line) { return !line.starts_with("RI "); });
  }
};

TEST_F(ProcMgrCfgFile, EachValueFallsBackOnItsOwn) {
  const struct {
    const char* text;
    std::string values;         // Watchdog: switch, time-out, action; switch of the upload.
    std::ptrdiff_t complaints;  // One for each value that is missing or wrong.
  } kCases[] = {
      {"watch_dog: {enable: false, timeout: '007', action: 1}\npmupload: {enable: true}",
       "0,007,1,1", 0},
      {"watch_dog: {timeout: 1.5, action: '0'}", "1,60,0,0", 3},
      {"watch_dog: {enable: true, timeout: '', action: '2 '}", "1,60,2,0", 3},
      {"watch_dog: {enable: true, timeout: [1], action: {a: 1}}", "1,60,2,0", 3},
      // An upload mapping without the switch means on, none at all means off.
      {"watch_dog: {enable: false, timeout: 1, action: 0}\npmupload: {}", "0,1,0,1", 1},
      // Without the watchdog the upload switch isn't read.
      {"[watch_dog]", "1,60,2,0", 1},
      {"pmupload: {enable: true}", "1,60,2,0", 1},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.text);
    const ProcMgrCfg cfg = Load(test.text);
    const WatchDogCfg& dog = cfg.watchDogCfg;
    EXPECT_EQ(std::to_string(dog.enable) + "," + dog.timeout + "," + dog.action + "," +
                  std::to_string(cfg.pmUploadEnable),
              test.values);
    EXPECT_EQ(cfg.delayCore, std::nullopt);
    EXPECT_EQ(Complaints(), test.complaints);
  }
}

TEST_F(ProcMgrCfgFile, ReadsTheDelayedBinding) {
  const struct {
    std::string mapping;
    DelayCoreSettings settings;
    std::ptrdiff_t warnings;
  } kCases[] = {
      {"{check_num: 5, wake_up_enable: true, check_interval: 200}", {5, true, 200}, 0},
      {"nothing", {0, false, 0}, 0},
      {"{check_num: -128, check_interval: 4294967295}", {-128, false, 4294967295}, 0},
      {"{check_num: 128, check_interval: 4294967296}", {0, false, 0}, 2},
      {"{check_num: 1.5, check_interval: -1, wake_up_enable: 2}", {0, false, 0}, 3},
      {"{check_num: [1]}", {0, false, 0}, 1},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.mapping);
    const ProcMgrCfg cfg = Load("delay_core: " + test.mapping);
    EXPECT_EQ(cfg.delayCore, test.settings);
    EXPECT_EQ(Complaints(), test.warnings + 1) << "one of them for the missing watchdog";
  }
}

}  // namespace
}  // namespace ProcMgr
