// Binaries whose digest is listed.
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

const std::string kHashes = std::string(kConfigDir) + "bin_hash.cfg";

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
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  pid = AwaitStarted("steady", before);
  ASSERT_TRUE(Await("PROCMGR : STARTING to RUNNING appName=steady", before));
  EXPECT_EQ(log_.Count(Refusal(path)), 0U);
  // Changed under a running process, it doesn't.
  Install(path, true);
  before = log_.Lines().size();
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(Await(Refusal(path), before));
  ASSERT_TRUE(Await("state=TERMINATED restart failed", before));
  EXPECT_EQ(CountLines(log_.Masked(before), "Start baseApp success appName=steady,"), 0U);
  EXPECT_TRUE(Eventually([&] { return daemon_->Services().size() == 1; }));
}

// A shell would take this path for three commands, of which the second makes a file; and of a
// folder there is no digest.
TEST_F(Digest, PathNeverReachesAShellAsMoreThanAWord) {
  const std::string trace = "/run/sandbox/trace";
  const std::string dir = "/opt/test/a;touch " + trace + ";/";
  const std::string folder = "/opt/test/folder";
  struct Case {
    std::string name;
    std::string path;
    bool isListed;
  };
  const Case cases[] = {
      {"semicolon", dir + "listed", true},
      {"dollar", "/opt/test/$(touch " + trace + ")/listed", true},
      {"unlisted", dir + "unlisted", false},
  };
  std::filesystem::create_directories(sandbox_.Outside(folder));
  std::vector<App> apps = {{"folder", folder, {}, {}}};
  for (const Case& c : cases) {
    apps.push_back({c.name, Install(c.path), {}, {}});
  }
  sandbox_.WriteFile(kHashes, "listed=" + Sum(kService) + "\nfolder=" + Sum(kService) + "\n");
  Boot(apps);
  const std::vector<std::string> lines = AwaitBoot();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t isRefused = c.isListed ? 1 : 0;
    EXPECT_EQ(CountLines(lines, "3 PROCMGR: IntegrityProtect appPath=" + c.path +
                                    " has characters that a shell interprets"),
              isRefused);
    EXPECT_EQ(CountLines(lines, "3 " + Refusal(c.path)), isRefused);
    EXPECT_EQ(CountLines(lines, "Start baseApp success appName=" + c.name + ","), 1 - isRefused);
  }
  EXPECT_EQ(CountLines(lines, "3 " + Refusal(folder)), 1U);
  EXPECT_FALSE(std::filesystem::exists(sandbox_.Outside(trace)));
}

}  // namespace
}  // namespace PmTest
