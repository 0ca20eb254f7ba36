// Configuration files, good and bad: whatever stands in their place, the boot goes on. And what the
// digests of one of them decide.
#include <sys/resource.h>

#include <cctype>
#include <cstdio>

#include "base/small_file.h"
#include "tests/support/children.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

const std::string kOwn = std::string(kConfigDir) + "procmgr_cfg.yaml";
const std::string kHashes = std::string(kConfigDir) + "bin_hash.cfg";
const std::string kPools = "/etc/sharepool/pools.yaml";
const std::string kLimits = "/etc/vantor_common_env.conf";
const std::string kUsers = "/etc/passwd";

// Two texts that stand for something else in the place of the file.
const std::string kMissing = "(missing)";
const std::string kFolder = "(folder)";
const std::string kBinary("\x7f\x45\x4c\x46\x00\xff\xfe\x01\n\x00\x02", 11);
// One byte more than the manager reads, and nothing wrong with it but that.
const std::string kOversized = std::string(std::size_t{1} << 20, '#') + "\n";

struct ConfigCase {
  std::string text;
  std::vector<std::string> lines;       // What the boot says, masked, the level first.
  std::vector<std::string> never = {};  // Parts of lines that it doesn't say.
};

class Configuration : public ScenarioTest {
 protected:
  void Put(const std::string& path, const std::string& text) const {
    std::filesystem::remove_all(sandbox_.Outside(path));
    if (text == kFolder) {
      std::filesystem::create_directories(sandbox_.Outside(path));
    } else if (text != kMissing) {
      sandbox_.WriteFile(path, text);
    }
  }

  // Boots once with each text of the file and checks what is said and that a service runs.
  void CheckEach(const std::string& path, const std::vector<ConfigCase>& cases) {
    for (const ConfigCase& c : cases) {
      SCOPED_TRACE(c.text.substr(0, 100));
      Put(path, c.text);
      const std::size_t before = log_.Lines().size();
      Boot({Service("plain")});
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
  const std::string finish = "6 PROCMGR: LoadWatchDogCfg finish enable=";
  const std::string delay = "6 PROCMGR: LoadDelayCoreCfg finish checkNum=";
  const std::string defaults = finish + "1, wdTimeout=60 s, wdAction=2";
  const std::string noTimeout = "4 GetWatchDogTimeout is null !";
  const std::string upload = "6 PROCMGR: LoadPmUploadCfg finish enable=1";
  CheckEach(
      kOwn,
      {
          {kMissing, {failed + "errno=2"}, {"LoadWatchDogCfg", "LoadPmUploadCfg"}},
          {kFolder, {broken}},
          {"", {broken}},
          {kBinary, {broken}},
          {kOversized, {broken}},
          {"watch_dog: [1,\n", {broken}, {"LoadWatchDogCfg"}},
          {"watch_dog: {enable: false, timeout: '15', action: 0}\npmupload: {enable: true}\n"
           "delay_core: {check_num: -1, check_interval: 200, wake_up_enable: true}\n",
           {finish + "0, wdTimeout=15 s, wdAction=0", upload,
            delay + "-1, isWakeUpEnable=1, checkInterval=200"},
           {"is null !"}},
          {"watch_dog: {enable: perhaps, timeout: -5, action: 3}\npmupload: {}\n",
           {"4 GetWatchDogEnbale is null !", noTimeout, "4 GetWatchDogAction is null !", defaults,
            "4 GetPmuploadEnbale is null !", upload}},
          {"watch_dog: 7\npmupload: off\n", {noTimeout, defaults}},
          {"watch_dog: {timeout: 1.5}\n", {noTimeout, defaults}},
          // The other settings hang on the presence of the first.
          {"pmupload: {enable: true}\n",
           {"3 LoadWatchDogCfg not exist watch_dog key"},
           {"LoadPmUploadCfg"}},
          {"watch_dog: {timeout: 99999999999999999999}\n"
           "delay_core: {check_num: 300, check_interval: 4294967296}\n",
           {finish + "1, wdTimeout=99999999999999999999 s, wdAction=2",
            "4 LoadDelayCoreCfg check_num=300 is no number from -128 to 127, use 0",
            delay + "0, isWakeUpEnable=0, checkInterval=0"}},
          // Read without the first too, and said nothing about unless they are wrong.
          {"supervision: {reaction: immediate}\nstatus: {enable: true, group: root}\n",
           {"3 LoadWatchDogCfg not exist watch_dog key"},
           {"LoadProcMgrCfg"}},
          {"supervision: {reaction: soon}\nstatus: {enable: perhaps, group: \"nobody\\e[m\"}\n",
           {"4 LoadProcMgrCfg supervision/reaction=soon is neither pass nor immediate, use "
            "pass",
            "4 LoadProcMgrCfg status/enable=perhaps is neither true nor false, use true",
            "4 LoadProcMgrCfg status/group=nobody\\x1b[m is no group, use 0"}},
          {"supervision: now\nstatus: [off]\n",
           {"4 LoadProcMgrCfg supervision=now is no mapping, use its defaults",
            "4 LoadProcMgrCfg status= is no mapping, use its defaults"}},
          {"status: {group: 4294967296}\nsupervision: {reaction: [pass]}\n",
           {"4 LoadProcMgrCfg status/group=4294967296 is no group, use 0",
            "4 LoadProcMgrCfg supervision/reaction= is neither pass nor immediate, use "
            "pass"}},
      });
}

TEST_F(Configuration, Digests) {
  const std::string file = "PROCMGR: IntegrityProtect hash config file=" + kHashes;
  const std::string line = "4 PROCMGR: hash config line of ";
  const std::string wrong = "4 PROCMGR: hash config string=";
  CheckEach(kHashes, {
                         {kMissing, {"4 " + file + " is not exist"}},
                         {kFolder, {"3 " + file + " open failed"}},
                         {kOversized + "=wrong\n", {wrong + "=wrong format is false"}},
                         {kBinary, {}},
                         {"", {}, {"hash config"}},
                         {"\nother=00\n\nlast=11", {}, {"hash config"}},
                         {"=value\nname=\nnothing\nother=00\n",
                          {wrong + "=value format is false", wrong + "name= format is false",
                           wrong + "nothing format is false"},
                          {"string=other"}},
                         // The service itself, wrongly: if this line counted, the start would fail.
                         {"test-service=" + std::string(10'000, '0'),
                          {line + "10013 characters is too long, begins with=test-service=" +
                           std::string(242, '0')}},
                     });
}

TEST_F(Configuration, SharePools) {
  const std::string broken =
      "3 sharepool LoadCfgFile file (" + kPools + ") failed, init yaml node failed";
  const auto made = [](const std::string& group) {
    return "6 CreateSharepoolGroup group=" + group + " success";
  };
  const std::string always = made("DEFAULT_MEM_GROUP");
  const std::string cfg = "4 cfg=" + kPools;
  const std::string longName(64, 'G');
  CheckEach(
      kPools,
      {
          {kMissing, {always}, {"LoadCfgFile"}},
          {kFolder, {always}, {"LoadCfgFile"}},
          {"", {broken, always}},
          {kBinary, {broken, always}},
          {kOversized, {broken, always}},
          {"sharepool_groups: {A: [}\n", {broken, always}},
          {"other: 1\n",
           {"4 LoadSharepoolGroupCfg not exist sharepool_groups key",
            cfg + " LoadAdminProLists not exist admin_pro_lists key",
            cfg + " not exist add_all_groups_white_lists key", always}},
          {"sharepool_groups: 7\nadmin_pro_lists: EM\nadd_all_groups_white_lists: {a: b}\n",
           {"4 " + kPools + " invalid file!", cfg + " admin_pro_lists is no list of names",
            cfg + " add_all_groups_white_lists is no list of names", always}},
          {"sharepool_groups:\n  - FITS: {mem_size: 18446744073709551615}\n"
           "  - HUGE: {mem_size: 18446744073709551616}\n  - FITS: {mem_size: 1}\n",
           {"6 LoadSharepoolGroupCfg groupName=FITS, memSize=18446744073709551615 KB",
            "6 LoadSharepoolGroupCfg groupName=HUGE, memSize=0 KB", made("FITS"), made("HUGE")},
           {"is existed"}},
          // A name that the platform refuses.
          {"sharepool_groups: {" + longName + ": {mem_size: 1}, OK: {}}\n",
           {"3 CreateSharepoolGroup group=" + longName + " faild, res=22", made("OK"), always}},
      });
  // A broken file keeps no other from being read, and the folder itself may be none.
  sandbox_.WriteFile("/etc/sharepool/more.yaml", "sharepool_groups: {MORE: {mem_size: 5}}\n");
  Put(kPools, kBinary);
  CheckEach("/etc/sharepool/absent.yaml", {{kMissing, {broken, made("MORE")}}});
  CheckEach("/etc/sharepool", {{kMissing, {"3 LoadSharepoolCfg failed: errno=2", always}},
                               {"", {"3 LoadSharepoolCfg failed: errno=20", always}}});
}

TEST_F(Configuration, HomeDirectory) {
  const std::string failed = "3 fopen " + kUsers + " fail, errno=";
  const std::string none = "6 PROCMGR: InquireHomeEnvVariable not find 1000:1000 env";
  const std::string found = "6 PROCMGR: InquireHomeEnvVariable finished home env=/home/";
  CheckEach(
      kUsers,
      {
          {kMissing, {failed + "2"}},
          {kFolder, {failed + "21"}},
          {kOversized + "a:x:1000:1000::/home/a:/bin/sh\n", {found + "a "}},
          {"", {none}},
          {kBinary, {none}},
          {"a:x:1000:1001::/home/a:/bin/sh\n", {none}},
          {"a:x:1:1::/a:/b\nb:x:1000:1000:B:/home/b:/bin/sh", {found + "b "}},
          {"a:x:1000:1000\n",
           {"4 PROCMGR: InquireHomeEnvVariable line of 1000:1000 has no home directory"}},
          {"a:x:1000:1000:" + std::string(10'000, 'c') + ":/home/a:/bin/sh\n", {found + "a "}},
      });
}

class LockedMemory : public Configuration {
 protected:
  // The line that tells how the limit was set. Raising it is a right that root lacks in some
  // containers, and then the manager keeps what it was started with.
  static std::string Outcome(std::uint64_t value) {
    rlimit own{};
    EXPECT_EQ(getrlimit(RLIMIT_MEMLOCK, &own), 0);
    return value <= own.rlim_max || MayRaiseLimits()
               ? "6 PROCMGR: SetLockedMemoryLimit success limit value=" + std::to_string(value) +
                     " "
               : "3 PROCMGR: setrlimit failed : errno=1, cfg=" + kLimits +
                     ", value=" + std::to_string(value);
  }
};

TEST_F(LockedMemory, FollowsTheFile) {
  const std::string unlimited = Outcome(~std::uint64_t{0});
  const std::string get = "PROCMGR: GetLockedMemoryLimitFromCfg ";
  const std::string failed = "4 GetLockedMemoryLimitFromCfg fopen " + kLimits + " fail,errno=";
  const std::string noKey =
      "6 " + get + "not find MAX_LOCKED_MEMORY_LIMIT= limit cfg, return default";
  const std::string key = "MAX_LOCKED_MEMORY_LIMIT=";
  CheckEach(kLimits,
            {
                {kMissing, {failed + "2, return default", unlimited}},
                {kFolder, {failed + "21, return default", unlimited}},
                {kOversized, {failed + "27, return default", unlimited}},
                {"", {noKey, unlimited}},
                {kBinary, {noKey, unlimited}},
                {"# " + key + "4096\n", {noKey, unlimited}},
                {"OTHER=1\n" + key + "4096", {Outcome(4096)}},
                {key + "8192\n" + key + "4096\n", {Outcome(8192)}},
                {key + "is unlimited\n", {"6 " + get + "limit is unlimited", unlimited}},
                {key + "none", {"4 " + get + "value=none is no number of bytes", Outcome(0)}},
                {key + "4096K", {"4 " + get + "value=4096K is no number of bytes", Outcome(4096)}},
                {key + "99999999999999999999999", {unlimited}},
            });
}

// What the samples promise their readers.
TEST_F(LockedMemory, SamplesMeanWhatTheyShow) {
  const std::pair<const char*, std::string> samples[] = {
      {"procmgr_cfg.yaml", kOwn},
      {"bin_hash.cfg", kHashes},
      {"sharepool/pools.yaml", kPools},
      {"common_env.conf", kLimits},
      {"kernel-cmdline.txt", "/proc/cmdline"},
  };
  for (const auto& [sample, path] : samples) {
    std::string text;
    ASSERT_EQ(ProcMgr::ReadSmallFile(std::string(PM_SAMPLES_DIR) + "/" + sample,
                                     ProcMgr::kConfigFileLimit, text),
              0)
        << sample;
    sandbox_.WriteFile(path, text);
  }
  const std::string chosen = std::string(kConfigDir) + "startup_small.yaml";
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/recorder");
  sandbox_.WriteFile(chosen,
                     ServiceFile({Service("plain"), {"recorder", "/opt/test/recorder", {}, {}}}));
  Boot({Service("never")});
  const std::vector<std::string> lines = AwaitBoot();
  EXPECT_THAT(
      lines,
      IsSupersetOf(std::vector<std::string>{
          "6 PROCMGR: LoadWatchDogCfg finish enable=1, wdTimeout=60 s, wdAction=2",
          "6 PROCMGR: LoadPmUploadCfg finish enable=1",
          "6 PROCMGR: LoadDelayCoreCfg finish checkNum=10, isWakeUpEnable=1, checkInterval=200",
          "6 LoadSharepoolGroupCfg groupName=CAMERA_POOL, memSize=65536 KB",
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

class Digest : public ScenarioTest {
 protected:
  // A copy of the test's service under a name of its own; with other content, that of a changed
  // file that still runs.
  std::string Install(const std::string& path, bool isChanged = false) const {
    // A running program can't be written to, so the new file takes the old one's place.
    std::filesystem::remove_all(sandbox_.Outside(path));
    sandbox_.InstallProgram(ProgramPath("test-service"), path);
    if (isChanged) {
      sandbox_.WriteFile(path, sandbox_.ReadFile(path) + "changed", 0755);
    }
    return path;
  }

  // What sha256sum says of the file, without its name.
  [[nodiscard]] std::string Sum(const std::string& inside) const {
    // "/proc/self" is another process in the command, and this one's descriptors aren't handed on.
    const std::string own = sandbox_.Outside(inside).substr(std::string("/proc/self").size());
    const std::string command = "sha256sum '/proc/" + std::to_string(getpid()) + own + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(popen(command.c_str(), "re"), &pclose);
    std::array<char, 65> text{};
    if (stream == nullptr || fgets(text.data(), text.size(), stream.get()) == nullptr) {
      ADD_FAILURE() << "can't run " << command;
    }
    return text.data();
  }

  [[nodiscard]] static std::string Refusal(const std::string& path) {
    return "PROCMGR : IntegrityProtect app=" + path + " or sha256sum has been modified";
  }
};

TEST_F(Digest, DecidesAboutTheStart) {
  struct Case {
    std::string name;
    std::string digest;  // Empty: not listed.
    bool starts;
  };
  const std::string right = Sum(Install("/opt/test/right"));
  ASSERT_EQ(right.size(), 64U);
  std::string upper = right;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return static_cast<char>(std::toupper(c)); });
  const Case cases[] = {
      {"right", right, true},
      {"unlisted", "", true},
      {"wrong", std::string(64, '0'), false},
      {"upper", upper, false},
      {"longer", right + "0", false},
      {"shorter", right.substr(1), false},
  };
  // Larger than any other configuration file may be: a table that isn't read lets everything
  // through.
  std::string hashes = "right=overruled by the later line\n";
  while (hashes.size() < std::size_t{1} << 20) {
    hashes += "elsewhere-" + std::to_string(hashes.size()) + "=" + right + "\n";
  }
  std::vector<App> apps;
  for (const Case& c : cases) {
    apps.push_back({c.name, Install("/opt/test/" + c.name), {}, {}});
    hashes += c.digest.empty() ? "" : c.name + "=" + c.digest + "\n";
  }
  sandbox_.WriteFile(kHashes, hashes);
  Boot(apps);
  const std::vector<std::string> lines = AwaitBoot();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t isRefused = c.starts ? 0 : 1;
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=" + c.name + ","), 1 - isRefused);
    EXPECT_EQ(CountLines(lines, "3 " + Refusal("/opt/test/" + c.name)), isRefused);
  }
  EXPECT_TRUE(Eventually([&] { return daemon_->Services().size() == 2; }));
}

TEST_F(Digest, ChangedBinaryIsNotStartedAgain) {
  const std::string path = Install("/opt/test/steady");
  sandbox_.WriteFile(kHashes, "steady=" + Sum(path) + "\n");
  Boot({{"steady", path, {"--serve", "steady"}, {{"restart", "on-forever"}}}, Service("other")});
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=steady"));
  // As it was, it comes back.
  pid_t pid = AwaitStarted("steady");
  std::size_t before = log_.Lines().size();
  ASSERT_TRUE(Kill(pid));
  pid = AwaitStarted("steady", before);
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=steady", before));
  EXPECT_EQ(log_.Count(Refusal(path)), 0U);
  // Changed under a running process, it doesn't.
  Install(path, true);
  before = log_.Lines().size();
  ASSERT_TRUE(Kill(pid));
  ASSERT_TRUE(Await(Refusal(path), before));
  ASSERT_TRUE(Await("state=TERMINATED restart failed", before));
  EXPECT_EQ(CountLines(log_.Masked(before), "Start baseApp success appName=steady,"), 0U);
  EXPECT_TRUE(Eventually([&] { return daemon_->Services().size() == 1; }));
}

// A digest of seconds holds up its own service alone: others return, and the boot goes on.
TEST_F(Digest, ALongOneHoldsUpNobodyElse) {
  const std::string path = Install("/opt/test/large");
  const auto mib = static_cast<std::uintmax_t>(400 / PmSandbox::PatienceFactor());
  std::filesystem::resize_file(sandbox_.Outside(path), mib << 20);
  sandbox_.WriteFile(kHashes, "large=" + Sum(path) + "\n");
  Boot({{"large", path, {"--serve", "large"}, {{"restart", "on-forever"}}},
        {"other", kService, {"--serve", "other"}, {{"restart", "on-forever"}}}});
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=large"));
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=other"));
  const std::size_t before = log_.Lines().size();
  ASSERT_TRUE(Kill(AwaitStarted("large")));
  ASSERT_TRUE(Await("owner=large, pid=", before));
  ASSERT_TRUE(Kill(AwaitStarted("other")));
  (void)AwaitStarted("other", before);
  EXPECT_EQ(CountLines(log_.Masked(before), "Start baseApp success appName=large,"), 0U);
  (void)AwaitStarted("large", before);
  EXPECT_EQ(CountLines(log_.Masked(before), "owner=large, pid=#, state=TERMINATED unpexpectedly"),
            1U)
      << "the end is told once, and at once";
}

}  // namespace
}  // namespace PmTest
