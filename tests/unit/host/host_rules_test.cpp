// What of the host's rules no boot shows: lines that never stand in a kernel's own files, names
// that reach a shell, and what is asked of the platform under another one's feet.

#include "host/core_affinity_mgr.h"
#include "host/integrity_protect.h"
#include "host/kernel_cmdline.h"
#include "host/sharepool_cfg.h"
#include "sandbox/process_table.h"
#include "tests/support/taken_log.h"
#include "tests/support/test.h"
#include "tests/support/threads.h"

namespace ProcMgr {
namespace {

TEST(KernelWords, AreCutBehindTheKey) {
  const struct {
    const char* line;
    std::set<std::string> words;
  } kCases[] = {
      {"procmgr=,b,a,,b, ro", {"a", "b"}},
      {"procmgr ", {}},  // The blank is what is skipped.
      {"procmgr= a", {}},
      {"procmgr:a", {"a"}},  // Any character is taken for the "=".
      {"procmgr=a procmgr=b", {"a"}},
      {"procmgr=a\tb", {"a\tb"}},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(SplitBootArg(test.line, "procmgr", ','), test.words) << '"' << test.line << '"';
  }
  EXPECT_EQ(GetSysState(1) + GetSysState(128) + GetSysState(~0UL), "WORKINGDELAY_BIND_CORE");
}

TEST(CpuList, ReadsItsTwoForms) {
  const struct {
    std::string line;
    std::vector<std::uint32_t> cores;
  } kCases[] = {
      {",3,,4,", {3, 4}},
      {"1,2a,x, 3,4", {1, 4}},
      {"4294967295,4294967296,7", {4294967295, 7}},
      {"0-1,8-9", {0, 1, 8, 9}},
      {"0-3,7", {0, 1, 2, 3}},  // A lone number beside a range isn't read.
      {"-2", {0, 1, 2}},
      {"2-", {}},
      {"a-b", {0}},
      {"3-1", {}},
      {"0--1", {0, 0, 1}},
      {"1022-4000000000", {1022, 1023}},
      {"1022-99999999999", {1022, 1023}},
  };
  for (const auto& test : kCases) {
    std::vector<std::uint32_t> cores;
    ParseCpuLine("path", test.line, cores);
    EXPECT_EQ(cores, test.cores) << '"' << test.line << '"';
  }
  std::string line = "x,";
  for (int i = 0; i < 200; ++i) {
    line += "5,,";
  }
  std::vector<std::uint32_t> cores;
  ParseCpuLine("path", line, cores);
  EXPECT_EQ(cores.size(), 128U) << "129 words are read, the first of them no number";
  // Of a file the first line counts, and one that is too long for a list of cores isn't read.
  const PmTest::TempFolder folder;
  cores.clear();
  ParseCpuFile(folder.Write("long", "3\n" + std::string(20000, '1')), cores);
  ParseCpuFile(folder.Write("good", "0-1\n7\n"), cores);
  EXPECT_THAT(cores, ElementsAre(0, 1));
}

// Of a file that holds the three bytes "abc".
const std::string kAbcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// Each name is listed with the digest of what stands in the file, so the only thing that can refuse
// it is the name itself.
TEST(Integrity, NothingThatAShellInterpretsReachesIt) {
  const PmTest::TempFolder folder;
  const auto check = [&folder](const std::string& name, const std::string& path) {
    folder.Write("bin/" + name, "abc");
    IntegrityProtect protect;
    protect.ParseHashCfg(name + "=" + kAbcDigest);
    return protect.Check(path.empty() ? folder.Path("bin/" + name) : path);
  };
  for (const char c : std::string(" \t;|&`$()<>*?[]{}~'\"\\#!^\xc3")) {
    EXPECT_FALSE(check(std::string("a") + c + "b", "")) << c;
  }
  EXPECT_TRUE(check("a.b_c-d+e@f%g:h,i", ""));
  // A path that would be an option, and those without a folder or a name.
  for (const char* const path : {"-/app", "app", "/", "///"}) {
    EXPECT_FALSE(check("app", path)) << path;
  }
  EXPECT_TRUE(check("app", folder.Path("bin") + "//app"));
  EXPECT_FALSE(check("app", folder.Path("bin") + "/app/")) << "there is no such file";
  EXPECT_FALSE(check("bin", folder.Path("bin"))) << "of a folder there is no digest";
}

TEST(Integrity, AFifoIsRefusedAndNotReadFrom) {
  const PmTest::TempFolder folder;
  const std::string path = folder.Path("app");
  ASSERT_EQ(mkfifo(path.c_str(), 0755), 0);
  IntegrityProtect protect;
  protect.ParseHashCfg("app=" + kAbcDigest);
  EXPECT_FALSE(protect.Check(path));
}

// A verdict that was worked out beforehand counts for one start of that very file.
TEST(Integrity, AVerdictCountsOnce) {
  const PmTest::TempFolder folder;
  const std::string path = folder.Write("app", "abc");
  IntegrityProtect protect;
  protect.ParseHashCfg("app=" + kAbcDigest);
  EXPECT_TRUE(protect.IsWorkedOut(folder.Path("unlisted")));
  EXPECT_TRUE(PmSandbox::Eventually([&] { return protect.IsWorkedOut(path); }));
  (void)folder.Write("app", "abcd");
  EXPECT_FALSE(protect.Check(path));
  EXPECT_FALSE(protect.IsAtHand(path));
  protect.WorkOut(path);
  EXPECT_TRUE(protect.IsWorkedOut(path) && protect.IsAtHand(path));
  EXPECT_FALSE(protect.Check(path));
  EXPECT_FALSE(protect.IsWorkedOut(path)) << "the next start needs its own";
}

// The manager's reaper takes whatever child it sees, the pipeline's among them.
TEST(Integrity, SeveralThreadsCheckWhileAReaperTakesTheirChildren) {
  const PmTest::TempFolder folder;
  const std::string good = folder.Write("app", "abc");
  const std::string bad = folder.Write("other", "abcd");
  IntegrityProtect protect;
  protect.ParseHashCfg("app=" + kAbcDigest + "\nother=" + kAbcDigest);
  const std::size_t descriptors = PmSandbox::OpenDescriptors(getpid()).size();
  std::atomic<bool> isRunning = true;
  std::thread reaper([&isRunning] {
    for (; isRunning; std::this_thread::yield()) {
      (void)waitpid(-1, nullptr, WNOHANG);
    }
  });
  PmTest::OnThreads(4, [&](int) {
    for (int round = 0; round < 5; ++round) {
      EXPECT_TRUE(protect.Check(good));
      EXPECT_FALSE(protect.Check(bad));
    }
  });
  isRunning = false;
  reaper.join();
  EXPECT_EQ(PmSandbox::OpenDescriptors(getpid()).size(), descriptors);
}

TEST(Sharepool, ARefusedGroupOrProcessIsToldAndTheNextIsTried) {
  const PmTest::TempFolder folder;
  const std::string pid = std::to_string(getpid());
  SharepoolCfg cfg;
  cfg.LoadCfgFile(folder.Write("pool.yaml",
                               "sharepool_groups: [boss: {mem_size: 1}, TRIED: {mem_size: 2}]\n"
                               "admin_pro_lists: [boss]\n"));
  (void)PmTest::TakeLog();
  cfg.CreateSharepoolGroup();
  cfg.CreateSharepoolGroup();
  cfg.AddSharepoolGroup("app", 0x7fffffff, {{"TRIED", "ro"}});
  cfg.AddSharepoolGroup("app", getpid(), {{"X", "ro"}, {"TRIED", "RW"}, {"TRIED", "rw"}});
  const std::string add =
      "AddSharepoolGroup CheckGroupCfg fail: pid=" + pid + ", appName=app, group=";
  const std::vector<std::string> lines = {
      "I CreateSharepoolGroup group=boss success",
      "I CreateSharepoolGroup group=TRIED success",
      "W CreateSharepoolGroup faild cur group=boss is existed",
      "W CreateSharepoolGroup faild cur group=TRIED is existed",
      "W AddSharepoolGroup failed ret=3, pid=2147483647, appName=app, groupName=TRIED, "
      "permission=ro",
      "W " + add + "X, permission=ro, err=CheckSharepoolGroupCfg faild groupName=X is not legal;",
      "W " + add +
          "TRIED, permission=RW, err=CheckSharepoolGroupCfg faild permission=RW is not "
          "legal;",
      "I AddSharepoolGroup: success, pid=" + pid + ", appName=app, groupName=TRIED, permission=rw"};
  EXPECT_EQ(PmTest::TakeLog(), lines);
  std::string err;
  EXPECT_TRUE(cfg.CheckSharepoolGroupCfg({"boss", "anything"}, err)) << "an admin's own group";
}

}  // namespace
}  // namespace ProcMgr
