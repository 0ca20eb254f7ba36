// Configuration files, good and bad: whatever stands in their place, the boot goes on.
#include <sys/resource.h>

#include <optional>

#include "core/small_file.h"
#include "core/text.h"
#include "tests/scenario/host_test.h"

namespace PmTest {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Eq;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

const std::string kOwn = std::string(kConfigDir) + "procmgr_cfg.yaml";
const std::string kHashes = std::string(kConfigDir) + "bin_hash.cfg";
const std::string kPools = "/etc/sharepool/pools.yaml";
const std::string kLimits = "/etc/vantor_common_env.conf";
const std::string kUsers = "/etc/passwd";

// What stands at the path of a file.
struct Content {
  enum class Kind { kMissing, kFolder, kText } kind = Kind::kMissing;
  std::string text;
};

Content Text(std::string text) {
  return {Content::Kind::kText, std::move(text)};
}
const Content kMissing;
const Content kFolder{Content::Kind::kFolder, {}};
const Content kBinary = Text(std::string("\x7f\x45\x4c\x46\x00\xff\xfe\x01\n\x00\x02", 11));
// One byte more than the manager reads, and nothing wrong with it but that.
const Content kOversized = Text(std::string(std::size_t{1} << 20, '#') + "\n");

struct ConfigCase {
  std::string what;
  Content content;
  std::vector<std::string> lines;       // What the boot says, masked, the level first.
  std::vector<std::string> never = {};  // Parts of lines that it doesn't say.
};

class Configuration : public HostTest {
 protected:
  void Put(const std::string& path, const Content& content) const {
    Remove(path);
    if (content.kind == Content::Kind::kFolder) {
      std::filesystem::create_directories(sandbox_.Outside(path));
    } else if (content.kind == Content::Kind::kText) {
      sandbox_.WriteFile(path, content.text);
    }
  }

  // Boots once with each content of the file and checks what is said and that a service runs.
  void CheckEach(const std::string& path, const std::vector<ConfigCase>& cases) {
    for (const ConfigCase& c : cases) {
      SCOPED_TRACE(c.what);
      Put(path, c.content);
      const std::size_t before = log_.Lines().size();
      Boot({{"plain", kService, {}, {}}});
      const std::vector<std::string> lines = AwaitBoot(before);
      EXPECT_THAT(lines, IsSupersetOf(c.lines));
      for (const std::string& part : c.never) {
        EXPECT_EQ(CountLines(lines, part), 0U) << part;
      }
      EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
    }
  }
};

TEST_F(Configuration, OwnSettings) {
  const std::string failed = "3 LoadProcMgrCfg file=" + kOwn + " failed. ";
  const std::string broken = failed + "init yaml node failed";
  const std::string defaults =
      "6 PROCMGR: LoadWatchDogCfg finish enable=1, wdTimeout=60 s, wdAction=2";
  const std::string noEnable = "4 GetWatchDogEnbale is null !";
  const std::string noTimeout = "4 GetWatchDogTimeout is null !";
  const std::string noAction = "4 GetWatchDogAction is null !";
  CheckEach(
      kOwn,
      {
          {"missing", kMissing, {failed + "errno=2"}, {"LoadWatchDogCfg", "LoadPmUploadCfg"}},
          {"folder", kFolder, {broken}},
          {"empty", Text(""), {broken}},
          {"binary", kBinary, {broken}},
          {"oversized", kOversized, {broken}},
          {"malformed", Text("watch_dog: [1,\n"), {broken}, {"LoadWatchDogCfg"}},
          {"good",
           Text("watch_dog: {enable: false, timeout: '15', action: 0}\npmupload: {enable: true}\n"
                "delay_core: {check_num: -1, check_interval: 200, wake_up_enable: true}\n"),
           {"6 PROCMGR: LoadWatchDogCfg finish enable=0, wdTimeout=15 s, wdAction=0",
            "6 PROCMGR: LoadPmUploadCfg finish enable=1",
            "6 PROCMGR: LoadDelayCoreCfg finish checkNum=-1, isWakeUpEnable=1, checkInterval=200"},
           {"is null !"}},
          {"wrong values",
           Text("watch_dog: {enable: perhaps, timeout: -5, action: 3}\npmupload: {}\n"),
           {noEnable, noTimeout, noAction, defaults, "4 GetPmuploadEnbale is null !",
            "6 PROCMGR: LoadPmUploadCfg finish enable=1"}},
          {"no mapping",
           Text("watch_dog: 7\npmupload: off\n"),
           {noEnable, noTimeout, noAction, defaults}},
          {"fraction",
           Text("watch_dog: {enable: true, timeout: 1.5, action: none}\n"),
           {noTimeout, noAction, defaults, "3 LoadPmUploadCfg not exist pmupload key"}},
          // The other settings hang on the presence of the first.
          {"no watchdog",
           Text("pmupload: {enable: true}\n"),
           {"3 LoadWatchDogCfg not exist watch_dog key"},
           {"LoadPmUploadCfg"}},
          {"numbers that don't fit",
           Text("watch_dog: {timeout: 99999999999999999999}\n"
                "delay_core: {check_num: 300, check_interval: 4294967296}\n"),
           {"6 PROCMGR: LoadWatchDogCfg finish enable=1, wdTimeout=99999999999999999999 s, "
            "wdAction=2",
            "4 LoadDelayCoreCfg check_num=300 is no number from -128 to 127, use 0",
            "4 LoadDelayCoreCfg check_interval=4294967296 is no number from 0 to 4294967295, use 0",
            "6 PROCMGR: LoadDelayCoreCfg finish checkNum=0, isWakeUpEnable=0, checkInterval=0"}},
      });
}

TEST_F(Configuration, ProcessesReportThemselvesOnlyIfTheSettingsSaySo) {
  struct Case {
    Content content;
    bool isServed = false;
  };
  const Case cases[] = {
      {kMissing, false},
      {Text("watch_dog: {}\n"), false},
      {Text("watch_dog: {}\npmupload: {}\n"), true},
      {Text("watch_dog: {}\npmupload: {enable: true}\n"), true},
      {Text("watch_dog: {}\npmupload: {enable: false}\n"), false},
      {Text("pmupload: {enable: true}\n"), false},
  };
  const std::string socket = "/run/nexio/PROCMGR.sock";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content.text);
    Put(kOwn, c.content);
    daemon_.reset();
    Remove(socket);
    const std::size_t before = log_.Lines().size();
    Boot({{"plain", kService, {}, {}}});
    (void)AwaitBoot(before);
    EXPECT_EQ(std::filesystem::exists(sandbox_.Outside(socket)), c.isServed);
  }
}

TEST_F(Configuration, Digests) {
  const std::string file = "PROCMGR: IntegrityProtect hash config file=" + kHashes;
  const std::string overlong = std::string(9'000, 'a') + "=" + std::string(999, '0');
  CheckEach(
      kHashes,
      {
          {"missing", kMissing, {"4 " + file + " is not exist"}},
          {"folder", kFolder, {"3 " + file + " open failed"}},
          {"oversized", kOversized, {"3 " + file + " open failed"}},
          {"empty", Text(""), {}, {"hash config"}},
          {"good", Text("\nother=00\n\nlast=11"), {}, {"hash config"}},
          {"malformed",
           Text("=value\nname=\nnothing\nother=00\n"),
           {"4 PROCMGR: hash config string==value format is false",
            "4 PROCMGR: hash config string=name= format is false",
            "4 PROCMGR: hash config string=nothing format is false"},
           {"string=other"}},
          // The name of the service itself, wrongly: if this line counted, the start would fail.
          {"overlong line",
           Text("test-service=" + std::string(10'000, '0') + "\n" + overlong),
           {"4 PROCMGR: hash config line of 10013 characters is too long, begins with=" +
                ("test-service=" + std::string(242, '0')),
            "4 PROCMGR: hash config line of 10000 characters is too long, begins with=" +
                std::string(255, 'a')}},
      });
  Put(kHashes, kBinary);
  const std::size_t before = log_.Lines().size();
  Boot({{"plain", kService, {}, {}}});
  const std::vector<std::string> lines = AwaitBoot(before);
  EXPECT_THAT(lines, Contains(StartsWith("4 PROCMGR: hash config string=\x7f"
                                         "ELF")));
  EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
}

TEST_F(Configuration, SharePools) {
  const std::string broken =
      "3 sharepool LoadCfgFile file (" + kPools + ") failed, init yaml node failed";
  const std::string always = "6 CreateSharepoolGroup group=DEFAULT_MEM_GROUP success";
  const std::string only = "6 sharepoolCfg has DEFAULT_MEM_GROUP sharepool group";
  CheckEach(
      kPools,
      {
          {"missing", kMissing, {always, only}, {"LoadCfgFile"}},
          {"folder", kFolder, {always, only}, {"LoadCfgFile"}},
          {"empty", Text(""), {broken, always}},
          {"binary", kBinary, {broken, always}},
          {"oversized", kOversized, {broken, always}},
          {"malformed", Text("sharepool_groups: {A: [}\n"), {broken, always}},
          {"no keys",
           Text("other: 1\n"),
           {"4 LoadSharepoolGroupCfg not exist sharepool_groups key",
            "4 cfg=" + kPools + " LoadAdminProLists not exist admin_pro_lists key",
            "4 cfg=" + kPools + " not exist add_all_groups_white_lists key", always}},
          {"wrong kinds",
           Text("sharepool_groups: 7\nadmin_pro_lists: EM\nadd_all_groups_white_lists: {a: b}\n"),
           {"4 " + kPools + " invalid file!",
            "4 cfg=" + kPools + " admin_pro_lists is no list of names",
            "4 cfg=" + kPools + " add_all_groups_white_lists is no list of names", always}},
          {"sizes",
           Text("sharepool_groups:\n  - FITS: {mem_size: 18446744073709551615}\n"
                "  - NONE: {}\n  - HUGE: {mem_size: 18446744073709551616}\n"
                "  - FITS: {mem_size: 1}\n"),
           {"6 LoadSharepoolGroupCfg groupName=FITS, memSize=18446744073709551615 KB",
            "6 LoadSharepoolGroupCfg groupName=NONE, memSize=0 KB",
            "6 LoadSharepoolGroupCfg groupName=HUGE, memSize=0 KB",
            "4 GetSharepoolGroupMemSize is null !", "6 CreateSharepoolGroup group=FITS success",
            "6 CreateSharepoolGroup group=HUGE success", always},
           {"is existed"}},
          {"a name that the platform refuses",
           Text("sharepool_groups: {" + std::string(64, 'G') + ": {mem_size: 1}, OK: {}}\n"),
           {"3 CreateSharepoolGroup group=" + std::string(64, 'G') + " faild, res=22",
            "6 CreateSharepoolGroup group=OK success", always}},
      });
  // A broken file keeps no other from being read, and the folder itself may be none.
  sandbox_.WriteFile("/etc/sharepool/more.yaml", "sharepool_groups: {MORE: {mem_size: 5}}\n");
  Put(kPools, kBinary);
  CheckEach("/etc/sharepool/absent.yaml",
            {{"two files", kMissing, {broken, "6 CreateSharepoolGroup group=MORE success"}}});
  CheckEach("/etc/sharepool",
            {{"no folder", kMissing, {"3 LoadSharepoolCfg failed: errno=2", only}},
             {"a file", Text(""), {"3 LoadSharepoolCfg failed: errno=20", only}}});
}

TEST_F(Configuration, HomeDirectory) {
  const std::string failed = "3 fopen " + kUsers + " fail, errno=";
  const std::string none = "6 PROCMGR: InquireHomeEnvVariable not find 1000:1000 env";
  const std::string found = "6 PROCMGR: InquireHomeEnvVariable finished home env=/home/";
  CheckEach(
      kUsers,
      {
          {"missing", kMissing, {failed + "2"}},
          {"folder", kFolder, {failed + "21"}},
          {"oversized", kOversized, {failed + "27"}},
          {"empty", Text(""), {none}},
          {"binary", kBinary, {none}},
          {"nobody", Text("a:x:1000:1001::/home/a:/bin/sh\n"), {none}},
          {"no newline", Text("a:x:1:1::/a:/b\nb:x:1000:1000:B:/home/b:/bin/sh"), {found + "b "}},
          {"no folder in the line",
           Text("a:x:1000:1000\n"),
           {"4 PROCMGR: InquireHomeEnvVariable line of 1000:1000 has no home directory"}},
          {"long line",
           Text("a:x:1000:1000:" + std::string(10'000, 'c') + ":/home/a:/bin/sh\n"),
           {found + "a "}},
      });
}

class LockedMemory : public Configuration {
 protected:
  // The line that tells how the limit was set. Raising it is a right that root lacks in some
  // containers, and then the manager keeps what it was started with.
  static std::string Outcome(std::uint64_t value) {
    rlimit own{};
    EXPECT_EQ(getrlimit(RLIMIT_MEMLOCK, &own), 0);
    constexpr unsigned kSysResource = 24;
    const auto rights = ProcMgr::ParseNumber<std::uint64_t>(StatusField(getpid(), "CapEff"), 16);
    const bool mayRaise = (rights.value_or(0) >> kSysResource & 1) != 0;
    return value <= own.rlim_max || mayRaise
               ? "6 PROCMGR: SetLockedMemoryLimit success limit value=" + std::to_string(value) +
                     " "
               : "3 PROCMGR: setrlimit failed : errno=1, cfg=" + kLimits +
                     ", value=" + std::to_string(value);
  }
};

TEST_F(LockedMemory, FollowsTheFile) {
  const std::string unlimited = Outcome(~std::uint64_t{0});
  const std::string failed = "4 GetLockedMemoryLimitFromCfg fopen " + kLimits + " fail,errno=";
  const std::string noKey =
      "6 PROCMGR: GetLockedMemoryLimitFromCfg not find MAX_LOCKED_MEMORY_LIMIT= limit cfg, return "
      "default";
  const std::string key = "MAX_LOCKED_MEMORY_LIMIT=";
  CheckEach(
      kLimits,
      {
          {"missing", kMissing, {failed + "2, return default", unlimited}},
          {"folder", kFolder, {failed + "21, return default", unlimited}},
          {"oversized", kOversized, {failed + "27, return default", unlimited}},
          {"empty", Text(""), {noKey, unlimited}},
          {"binary", kBinary, {noKey, unlimited}},
          {"comment", Text("# " + key + "4096\n"), {noKey, unlimited}},
          {"no newline", Text("OTHER=1\n" + key + "4096"), {Outcome(4096)}},
          {"first of two", Text(key + "8192\n" + key + "4096\n"), {Outcome(8192)}},
          {"word",
           Text(key + "is unlimited\n"),
           {"6 PROCMGR: GetLockedMemoryLimitFromCfg limit is unlimited", unlimited}},
          {"no number",
           Text(key + "none"),
           {"4 PROCMGR: GetLockedMemoryLimitFromCfg value=none is no number of bytes", Outcome(0)}},
          {"unit",
           Text(key + "4096K"),
           {"4 PROCMGR: GetLockedMemoryLimitFromCfg value=4096K is no number of bytes",
            Outcome(4096)}},
          {"too large", Text(key + "99999999999999999999999"), {unlimited}},
      });
}

// What the samples promise their readers.
TEST_F(LockedMemory, SamplesMeanWhatTheyShow) {
  const auto install = [&](const std::string& sample, const std::string& path) {
    std::string text;
    ASSERT_EQ(ProcMgr::ReadSmallFile(std::string(PM_SAMPLES_DIR) + "/" + sample,
                                     ProcMgr::kConfigFileLimit, text),
              0)
        << sample;
    Put(path, Text(text));
  };
  install("procmgr_cfg.yaml", kOwn);
  install("bin_hash.cfg", kHashes);
  install("sharepool/pools.yaml", kPools);
  install("common_env.conf", kLimits);
  install("kernel-cmdline.txt", "/run/sandbox/cmdline");
  sandbox_.SetKernelCommandLine(sandbox_.ReadFile("/run/sandbox/cmdline"));
  const std::string chosen = std::string(kConfigDir) + "startup_small.yaml";
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/recorder");
  sandbox_.WriteFile(chosen, ServiceFile({{"plain", kService, {}, {}},
                                          {"recorder", "/opt/test/recorder", {}, {}}}));
  Boot({{"never", kService, {}, {}}});
  const std::vector<std::string> lines = AwaitBoot();
  EXPECT_THAT(
      lines,
      IsSupersetOf(std::vector<std::string>{
          "6 PROCMGR: LoadWatchDogCfg finish enable=1, wdTimeout=60 s, wdAction=2",
          "6 PROCMGR: LoadPmUploadCfg finish enable=1",
          "6 PROCMGR: LoadDelayCoreCfg finish checkNum=10, isWakeUpEnable=1, checkInterval=200",
          "6 LoadSharepoolGroupCfg groupName=CAMERA_POOL, memSize=65536 KB",
          "6 LoadSharepoolGroupCfg groupName=RESULT_POOL, memSize=8192 KB",
          "6 sharepoolCfg app pool_admin is admin",
          "6 sharepoolCfg app=/opt/platform/bin/pool_monitor is in while lists",
          Outcome(67108864),
          "6 ProcMgr: cmdline disableWatchDog_=1",
          "6 ProcMgr: cmdline qelcoreEnable=1",
          "6 ProcMgr: emService.yaml need enable",
          "6 ProcMgr: update pm startup yaml from cmdline, new path: " + chosen,
          // The digest of the sample is of another file.
          "3 PROCMGR : IntegrityProtect app=/opt/test/recorder or sha256sum has been modified",
      }));
  EXPECT_EQ(CountLines(lines, "hash config"), 0U);
  EXPECT_EQ(CountLines(lines, "is null !"), 0U);
  EXPECT_EQ(CountLines(lines, "Start baseApp success appName=plain,"), 1U);
  EXPECT_EQ(CountLines(lines, "Start baseApp success appName="), 1U);
}

// Nothing that can be configured is there or makes sense; a service finds the defaults.
TEST_F(Configuration, NothingButRubbishLeavesTheDefaults) {
  for (const std::string& path : {kOwn, kHashes, kPools, kLimits}) {
    Put(path, kBinary);
  }
  sandbox_.SetKernelCommandLine(kBinary.text);
  rlimit own{};
  ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &own), 0);
  const std::string report = "/run/sandbox/report";
  sandbox_.WriteFile(kUsers, "root:x:0:0:root:/root:/bin/sh\n\xff\xfe\n");
  Boot({{"plain", kService, {"--report", report}, {{"cpuset", "CtrlCPU"}}}});
  const ServiceReport found = AwaitReport(sandbox_, report);
  EXPECT_EQ(found.Get("env.HOME"), "");
  EXPECT_FALSE(found.Has("env.SHAREPOOL_GROUP_NAME"));
  EXPECT_EQ(found.Get("status.Cpus_allowed_list"), "0");
  const std::string inherited =
      own.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(own.rlim_max);
  EXPECT_THAT(found.Get("limit.memlock"),
              AnyOf(Eq("unlimited,unlimited"), Eq(inherited + "," + inherited)));
  EXPECT_TRUE(log_.WaitFor("PROCMGR : EnableWatchDog flag=").has_value());
}

}  // namespace
}  // namespace PmTest
