#include "host/integrity_protect.h"

#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/host/host_test.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::Plain;
using Testing::TakeLog;

// Of a file that holds the three bytes "abc".
const std::string kAbcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class Integrity : public Testing::HostTest {
 protected:
  Integrity() : binary_(Write("bin/app", "abc")) {}

  [[nodiscard]] bool CheckWith(const std::string& table, const std::string& path) {
    IntegrityProtect protect;
    protect.ParseHashCfg(table);
    (void)TakeLog();
    return protect.Check(path);
  }

  [[nodiscard]] static std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  const std::string binary_;
};

TEST_F(Integrity, ComparesOnlyListedBinaries) {
  std::string upper = kAbcDigest;
  upper[0] = 'B';
  const struct {
    const char* name;
    std::string table;
    bool result;
  } kCases[] = {
      {"empty table", "", true},
      {"another name", "app2=" + kAbcDigest, true},
      {"the path is no name", binary_ + "=" + upper, true},
      {"right digest", "app=" + kAbcDigest, true},
      {"right digest among lines", "a=b\n\napp=" + kAbcDigest + "\nc=d\n", true},
      {"wrong digest", "app=" + std::string(64, '0'), false},
      {"upper case", "app=" + upper, false},
      {"too short", "app=" + kAbcDigest.substr(1), false},
      {"too long", "app=" + kAbcDigest + "0", false},
      {"carriage return behind it", "app=" + kAbcDigest + "\r\n", false},
      {"a second = is the value's", "app==" + kAbcDigest, false},
      {"the last line wins, wrong", "app=" + kAbcDigest + "\napp=0", false},
      {"the last line wins, right", "app=0\napp=" + kAbcDigest, true},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(CheckWith(test.table, binary_), test.result) << test.name;
    EXPECT_THAT(TakeLog(), IsEmpty()) << test.name;
  }
}

TEST_F(Integrity, FindsTheNameInThePath) {
  const std::string wrong = "app=0";
  EXPECT_FALSE(CheckWith(wrong, dir_.string() + "//bin//app"));
  EXPECT_TRUE(CheckWith("app=" + kAbcDigest, dir_.string() + "//bin//app"));
  EXPECT_TRUE(CheckWith("bin=0", binary_));
  // The name before the slash is looked up, and the file that the command names doesn't exist.
  EXPECT_FALSE(CheckWith("app=" + kAbcDigest, binary_ + "/"));

  EXPECT_TRUE(CheckWith("", "/a"));
  for (const std::string path : {"/", "///", "app"}) {
    EXPECT_FALSE(CheckWith("", path)) << path;
    EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_ERR, "PROCMGR: IntegrityProtect appPath=" + path +
                                                          " is illegal")));
  }
  EXPECT_FALSE(CheckWith("", ""));
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_ERR, "PROCMGR: IntegrityProtect appName is empty")));
}

TEST_F(Integrity, ABinaryWithoutADigestFails) {
  const std::string path = Path("bin/none");
  EXPECT_FALSE(CheckWith("none=" + kAbcDigest, path));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Plain(LOG_ERR, "PROCMGR: IntegrityProtect sha256sum failed for app=" + path)));
}

// Each name is listed with the digest of what stands in the file, so the only thing that can refuse
// it is the name itself; a shell that got to see one would leave a trace.
TEST_F(Integrity, NothingThatAShellInterpretsReachesIt) {
  // A redirection or a touch would leave its trace in the working folder.
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_);
  const std::string trace = Path("trace");
  const std::string kNames[] = {"a;touch trace",
                                "a|touch trace",
                                "a&touch trace",
                                "`touch trace`",
                                "$(touch trace)",
                                "a>trace",
                                "a b",
                                "a\tb",
                                "a*",
                                "a?",
                                "[a]",
                                "~a",
                                "a'b",
                                "a\"b",
                                "a\\b",
                                "{a,b}",
                                "a#b",
                                "a!b",
                                "\xc3\xa4",
                                "a^b",
                                "a(b)"};
  for (const std::string& name : kNames) {
    std::string path = "bin/";
    path = Write(path.append(name), "abc");
    EXPECT_FALSE(CheckWith(std::string(name).append("=").append(kAbcDigest), path)) << name;
    EXPECT_THAT(TakeLog(),
                ElementsAre(Plain(LOG_ERR, "PROCMGR: IntegrityProtect appPath=" + path +
                                               " has characters that a shell interprets")));
    EXPECT_FALSE(std::filesystem::exists(trace)) << name;
  }
  // A folder counts as well, and a path that would be an option.
  EXPECT_FALSE(CheckWith("app=" + kAbcDigest, Write("a;b/app", "abc")));
  EXPECT_FALSE(CheckWith("app=" + kAbcDigest, "-/app"));
  EXPECT_TRUE(CheckWith("a.b_c-d+e@f%g:h,i=" + kAbcDigest, Write("x/a.b_c-d+e@f%g:h,i", "abc")));
  std::filesystem::current_path(before);
}

TEST_F(Integrity, PassesOverBadLines) {
  const std::string longLine = "x=" + std::string(254, '0');  // 256 characters.
  const struct {
    std::string line;
    std::string warning;
  } kCases[] = {
      {"noequals", "PROCMGR: hash config string=noequals format is false"},
      {"=value", "PROCMGR: hash config string==value format is false"},
      {"key=", "PROCMGR: hash config string=key= format is false"},
      {"=", "PROCMGR: hash config string== format is false"},
      {longLine, "PROCMGR: hash config line of 256 characters is too long, begins with=" +
                     longLine.substr(0, 255)},
      {std::string(10000, 'y'),
       "PROCMGR: hash config line of 10000 characters is too long, "
       "begins with=" +
           std::string(255, 'y')},
  };
  for (const auto& test : kCases) {
    IntegrityProtect protect;
    (void)TakeLog();
    protect.ParseHashCfg(test.line + "\napp=0\n");
    EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_WARNING, test.warning)));
    EXPECT_FALSE(protect.Check(binary_)) << "the line behind it counts";
  }
}

TEST_F(Integrity, WithoutATableEverythingPasses) {
  const std::string missing = Path("missing");
  IntegrityProtect protect;
  protect.LoadHashCfg(missing);
  EXPECT_THAT(TakeLog(),
              ElementsAre(Plain(LOG_WARNING, "PROCMGR: IntegrityProtect hash config file=" +
                                                 missing + " is not exist")));
  protect.LoadHashCfg(dir_.string());
  EXPECT_THAT(TakeLog(), ElementsAre(Plain(LOG_ERR, "PROCMGR: IntegrityProtect hash config file=" +
                                                        dir_.string() + " open failed")));
  EXPECT_TRUE(protect.Check(binary_));
  protect.LoadHashCfg(Write("bin_hash.cfg", "app=0"));
  EXPECT_FALSE(protect.Check(binary_));
}

// The manager's reaper takes whatever child it sees, the pipeline's among them.
TEST_F(Integrity, SeveralThreadsCheckWhileAReaperTakesTheirChildren) {
  IntegrityProtect protect;
  protect.ParseHashCfg("app=" + kAbcDigest + "\nother=" + kAbcDigest);
  const std::string other = Write("bin/other", "abcd");
  const std::size_t descriptors = OpenDescriptors();
  std::atomic<bool> isRunning = true;
  std::thread reaper([&isRunning] {
    while (isRunning) {
      (void)waitpid(-1, nullptr, WNOHANG);
      std::this_thread::yield();
    }
  });
  std::atomic<int> wrong = 0;
  std::vector<std::thread> checkers;
  checkers.reserve(4);
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
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
}  // namespace ProcMgr
