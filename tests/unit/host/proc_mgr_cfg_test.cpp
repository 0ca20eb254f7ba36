#include "host/proc_mgr_cfg.h"

#include <cerrno>
#include <string>
#include <vector>

#include "core/small_file.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Testing::LogLine;
using Testing::Routed;
using Testing::TakeLog;

const LogLine kNoEnable = Routed(LOG_WARNING, "GetWatchDogEnbale is null !");
const LogLine kNoTimeout = Routed(LOG_WARNING, "GetWatchDogTimeout is null !");
const LogLine kNoAction = Routed(LOG_WARNING, "GetWatchDogAction is null !");
const LogLine kNoWatchDog = Routed(LOG_ERR, "LoadWatchDogCfg not exist watch_dog key");
const LogLine kNoUpload = Routed(LOG_ERR, "LoadPmUploadCfg not exist pmupload key");

LogLine WatchDogLine(const char* enable, const char* timeout, const char* action) {
  return Routed(LOG_INFO, std::string("PROCMGR: LoadWatchDogCfg finish enable=") + enable +
                              ", wdTimeout=" + timeout + " s, wdAction=" + action);
}

LogLine UploadLine(const char* enable) {
  return Routed(LOG_INFO, std::string("PROCMGR: LoadPmUploadCfg finish enable=") + enable);
}

class ProcMgrCfgFile : public Testing::HostTest {
 protected:
  ProcMgrCfg Load(const std::string& text) {
    (void)TakeLog();
    ProcMgrCfg cfg;
    LoadProcMgrCfg(Write("procmgr_cfg.yaml", text), cfg);
    return cfg;
  }
};

TEST_F(ProcMgrCfgFile, EachValueFallsBackOnItsOwn) {
  const struct {
    const char* text;
    const char* timeout;
    const char* action;
    bool enable;
    bool upload;
    std::vector<LogLine> log;
  } kCases[] = {
      {"watch_dog: {enable: false, timeout: 30, action: 1}\npmupload: {enable: true}\n",
       "30",
       "1",
       false,
       true,
       {WatchDogLine("0", "30", "1"), UploadLine("1")}},
      {"watch_dog: {enable: true, timeout: \"007\", action: \"0\"}\npmupload: {enable: false}\n",
       "007",
       "0",
       true,
       false,
       {WatchDogLine("1", "007", "0"), UploadLine("0")}},
      {"watch_dog: {enable: false}\n",
       "60",
       "2",
       false,
       false,
       {kNoTimeout, kNoAction, WatchDogLine("0", "60", "2"), kNoUpload}},
      // An upload mapping without the switch means on, none at all means off.
      {"watch_dog: {enable: false, timeout: 1, action: 0}\npmupload: {}\n",
       "1",
       "0",
       false,
       true,
       {WatchDogLine("0", "1", "0"), Routed(LOG_WARNING, "GetPmuploadEnbale is null !"),
        UploadLine("1")}},
      {"watch_dog: {enable: 7, timeout: -5, action: 3}\npmupload: {enable: maybe}\n",
       "60",
       "2",
       true,
       true,
       {kNoEnable, kNoTimeout, kNoAction, WatchDogLine("1", "60", "2"),
        Routed(LOG_WARNING, "GetPmuploadEnbale is null !"), UploadLine("1")}},
      {"watch_dog: {enable: true, timeout: 1.5, action: none}\n",
       "60",
       "2",
       true,
       false,
       {kNoTimeout, kNoAction, WatchDogLine("1", "60", "2"), kNoUpload}},
      {"watch_dog: {enable: true, timeout: \"\", action: \"2 \"}\n",
       "60",
       "2",
       true,
       false,
       {kNoTimeout, kNoAction, WatchDogLine("1", "60", "2"), kNoUpload}},
      {"watch_dog: {enable: true, timeout: [1], action: {a: 1}}\n",
       "60",
       "2",
       true,
       false,
       {kNoTimeout, kNoAction, WatchDogLine("1", "60", "2"), kNoUpload}},
      {"watch_dog: on fire\npmupload: no mapping\n",
       "60",
       "2",
       true,
       true,
       {kNoEnable, kNoTimeout, kNoAction, WatchDogLine("1", "60", "2"),
        Routed(LOG_WARNING, "GetPmuploadEnbale is null !"), UploadLine("1")}},
      // Without the watchdog the upload switch isn't read.
      {"pmupload: {enable: true}\n", "60", "2", true, false, {kNoWatchDog}},
      {"[watch_dog]\n", "60", "2", true, false, {kNoWatchDog}},
  };
  for (const auto& test : kCases) {
    const ProcMgrCfg cfg = Load(test.text);
    EXPECT_EQ(cfg.watchDogCfg.enable, test.enable) << test.text;
    EXPECT_EQ(cfg.watchDogCfg.timeout, test.timeout) << test.text;
    EXPECT_EQ(cfg.watchDogCfg.action, test.action) << test.text;
    EXPECT_EQ(cfg.watchDogCfg.koPath, "/var/sbsa_gwdt.ko") << test.text;
    EXPECT_EQ(cfg.pmUploadEnable, test.upload) << test.text;
    EXPECT_EQ(cfg.delayCore, std::nullopt) << test.text;
    EXPECT_THAT(TakeLog(), ElementsAreArray(test.log)) << test.text;
  }
}

TEST_F(ProcMgrCfgFile, ReadsTheDelayedBinding) {
  const auto number = [](const char* key, const char* value, const char* range) {
    return Routed(LOG_WARNING, std::string("LoadDelayCoreCfg ") + key + "=" + value +
                                   " is no number from " + range + ", use 0");
  };
  const struct {
    const char* mapping;
    DelayCoreSettings settings;
    std::vector<LogLine> warnings;
  } kCases[] = {
      {"{check_num: 5, wake_up_enable: true, check_interval: 200}", {5, true, 200}, {}},
      {"{}", {0, false, 0}, {}},
      {"nothing", {0, false, 0}, {}},
      {"{check_num: -128, check_interval: 4294967295}", {-128, false, 4294967295}, {}},
      {"{check_num: 128, check_interval: 4294967296}",
       {0, false, 0},
       {number("check_num", "128", "-128 to 127"),
        number("check_interval", "4294967296", "0 to 4294967295")}},
      {"{check_num: 1.5, check_interval: -1, wake_up_enable: 2}",
       {0, false, 0},
       {number("check_num", "1.5", "-128 to 127"),
        number("check_interval", "-1", "0 to 4294967295"),
        Routed(LOG_WARNING,
               "LoadDelayCoreCfg wake_up_enable is neither true nor false, use false")}},
      {"{check_num: [1]}", {0, false, 0}, {number("check_num", "", "-128 to 127")}},
  };
  for (const auto& test : kCases) {
    const ProcMgrCfg cfg = Load(std::string("delay_core: ") + test.mapping);
    ASSERT_TRUE(cfg.delayCore) << test.mapping;
    EXPECT_EQ(*cfg.delayCore, test.settings) << test.mapping;
    auto log = TakeLog();
    ASSERT_EQ(log.size(), test.warnings.size() + 2) << test.mapping;
    EXPECT_EQ(log.front(), kNoWatchDog) << "a file of its own is enough";
    EXPECT_THAT(std::vector<LogLine>(log.begin() + 1, log.end() - 1),
                ElementsAreArray(test.warnings))
        << test.mapping;
  }
}

TEST_F(ProcMgrCfgFile, AFileThatCannotBeLoadedLeavesTheDefaults) {
  const std::string broken = Write("broken", "watch_dog: [");
  const std::string binary = Write("binary", std::string("\x00\xff\xfe\x01", 4));
  const std::string tooLong =
      Write("long", "watch_dog: {enable: false}\n#" + std::string(kConfigFileLimit, 'x'));
  for (const std::string& path : {broken, binary, tooLong, Write("empty"), dir_.string()}) {
    ProcMgrCfg cfg;
    LoadProcMgrCfg(path, cfg);
    EXPECT_TRUE(cfg.watchDogCfg.enable);
    EXPECT_FALSE(cfg.pmUploadEnable);
    EXPECT_THAT(TakeLog(), ElementsAre(Routed(LOG_ERR, "LoadProcMgrCfg file=" + path +
                                                           " failed. init yaml node failed")));
  }
  ProcMgrCfg cfg;
  LoadProcMgrCfg(Path("missing"), cfg);
  EXPECT_THAT(TakeLog(),
              ElementsAre(Routed(LOG_ERR, "LoadProcMgrCfg file=" + Path("missing") +
                                              " failed. errno=" + std::to_string(ENOENT))));
}

}  // namespace
}  // namespace ProcMgr
