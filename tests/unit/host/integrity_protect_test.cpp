#include "host/integrity_protect.h"

#include <sys/wait.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/process_table.h"
#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using Testing::TakeLog;

// Of a file that holds the three bytes "abc".
const std::string kAbcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class Integrity : public Testing::HostTest {
 protected:
  [[nodiscard]] static bool CheckWith(const std::string& table, const std::string& path) {
    IntegrityProtect protect;
    protect.ParseHashCfg(table);
    return protect.Check(path);
  }

  const std::string binary_ = Write("bin/app", "abc");
};

TEST_F(Integrity, ComparesOnlyListedBinaries) {
  const std::string app = "app=" + kAbcDigest;
  const std::string slashes = Path("bin") + "//app";
  const struct {
    std::string table;
    std::string path;
    bool result;
  } kCases[] = {
      {"app2=0", binary_, true},
      {"a=b\n\n" + app + "\nc=d\n", binary_, true},
      {app + "0", binary_, false},
      {app + "\r\n", binary_, false},
      {"app==" + kAbcDigest, binary_, false},  // A second "=" is the value's.
      {app + "\napp=0", binary_, false},       // The last line wins.
      {"app=0\n" + app, binary_, true},
      // The name is what stands behind the last slash that another character follows.
      {"bin=0\n" + binary_ + "=0", binary_, true},
      {"app=0", slashes, false},
      {app, slashes, true},
      {app, binary_ + "/", false},  // There is no such file.
      // A path without a folder or a name is refused, whatever is listed.
      {"", "/a", true},
      {"", "/", false},
      {"", "///", false},
      {"", "app", false},
      {"", "", false},
      // A line that is no entry, or is longer than 255 characters, counts for nothing.
      {"app\napp=\n=app\n=", binary_, true},
      {"app=" + std::string(251, '0'), binary_, false},
      {"app=" + std::string(252, '0'), binary_, true},
      {std::string(10000, 'y') + "\napp=0", binary_, false},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(CheckWith(test.table, test.path), test.result) << test.table << " for " << test.path;
  }
}

// Each name is listed with the digest of what stands in the file, so the only thing that can refuse
// it is the name itself.
TEST_F(Integrity, NothingThatAShellInterpretsReachesIt) {
  const auto expectRefused = [](const std::string& name, const std::string& path) {
    (void)TakeLog();
    EXPECT_FALSE(CheckWith(name + "=" + kAbcDigest, path)) << name;
    EXPECT_THAT(TakeLog(), ElementsAre("E PROCMGR: IntegrityProtect appPath=" + path +
                                       " has characters that a shell interprets"));
  };
  for (const char c : std::string(" \t;|&`$()<>*?[]{}~'\"\\#!^\xc3")) {
    const std::string name = std::string("a") + c + "b";
    expectRefused(name, Write("bin/" + name, "abc"));
  }
  // A folder counts as well, and a path that would be an option.
  expectRefused("app", Write("a;b/app", "abc"));
  expectRefused("app", "-/app");
  EXPECT_TRUE(CheckWith("a.b_c-d+e@f%g:h,i=" + kAbcDigest, Write("x/a.b_c-d+e@f%g:h,i", "abc")));
}

// The manager's reaper takes whatever child it sees, the pipeline's among them.
TEST_F(Integrity, SeveralThreadsCheckWhileAReaperTakesTheirChildren) {
  IntegrityProtect protect;
  protect.ParseHashCfg("app=" + kAbcDigest + "\nother=" + kAbcDigest);
  const std::string other = Write("bin/other", "abcd");
  const std::size_t descriptors = PmSandbox::OpenDescriptors(getpid()).size();
  std::atomic<bool> isRunning = true;
  std::thread reaper([&isRunning] {
    while (isRunning) {
      (void)waitpid(-1, nullptr, WNOHANG);
      std::this_thread::yield();
    }
  });
  std::atomic<int> wrong = 0;
  std::vector<std::thread> checkers;
  for (int i = 0; i < 4; ++i) {
    checkers.emplace_back([&] {
      for (int round = 0; round < 5; ++round) {
        wrong += protect.Check(binary_) ? 0 : 1;
        wrong += protect.Check(other) ? 1 : 0;
      }
    });
  }
  for (std::thread& checker : checkers) {
    checker.join();
  }
  isRunning = false;
  reaper.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(PmSandbox::OpenDescriptors(getpid()).size(), descriptors);
}

}  // namespace
}  // namespace ProcMgr
