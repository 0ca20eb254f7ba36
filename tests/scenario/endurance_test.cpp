// Many starts: nothing is lost and nobody hangs.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

// A thousand of anything may take a slow machine minutes.
const std::chrono::milliseconds kPatienceForAll = 5 * kPatience;

class Endurance : public ScenarioTest {
 protected:
  // The children of the daemon that have become `program`.
  std::vector<pid_t> Running(const std::string& program) {
    std::vector<pid_t> found;
    for (const pid_t child : daemon_->Services()) {
      std::error_code ignored;
      if (std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/exe", ignored) ==
          program) {
        found.push_back(child);
      }
    }
    return found;
  }
};

// The exit of a service that ends at once may come before its record is in the list.
TEST_F(Endurance, ThousandServicesThatEndAtOnceAreAllSeen) {
  constexpr std::size_t kServices = 1000;
  std::vector<App> apps;
  for (std::size_t i = 0; i < kServices; ++i) {
    apps.push_back({"true" + std::to_string(i), "/bin/true", {}, {}});
  }
  Boot(apps);
  EXPECT_TRUE(
      log_.WaitForCount("removed from the list of executedBaseApp_", kServices, kPatienceForAll));
  EXPECT_EQ(log_.Count("PROCMGR: can not find app"), 0U);
  EXPECT_EQ(log_.Count("the exit status is 0."), kServices);
  EXPECT_TRUE(daemon_->Services().empty());
  EXPECT_TRUE(daemon_->Zombies().empty());
}

// The check thread restarts services, the main thread starts others, both log and look users up:
// a child that inherited a lock of another thread would hang before its exec for ever.
TEST_F(Endurance, StartsFromTwoThreadsNeverHangBeforeTheExec) {
  constexpr std::size_t kKept = 10;
  constexpr std::size_t kStarted = 600;
  constexpr std::size_t kRounds = 10;
  sandbox_.AddUser("worker", 7000, 7001, "/home/worker");
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/kept", 0, 7001, 0750);
  sandbox_.InstallProgram(ProgramPath("test-service"), "/opt/test/ending", 0, 7001, 0750);
  sandbox_.WriteFile("/run/nexio/README", "");
  ASSERT_EQ(chmod(sandbox_.Outside("/run/nexio").c_str(), 01777), 0);
  std::vector<App> apps;
  for (std::size_t i = 0; i < kKept; ++i) {
    // In name order ahead of the others, so they are restarted while those come up.
    const std::string name = "again" + std::to_string(i);
    apps.push_back({name,
                    "/opt/test/kept",
                    {"--serve", name},
                    {{"uid", "worker"}, {"gid", "worker"}, {"restart", "on-forever"}}});
  }
  for (std::size_t i = 0; i < kStarted; ++i) {
    apps.push_back({"once" + std::to_string(i),
                    "/opt/test/ending",
                    {"--exit-code", "0"},
                    {{"uid", "worker"}, {"gid", "worker"}}});
  }
  Boot(apps);
  ASSERT_TRUE(Eventually([&] { return Running("/opt/test/kept").size() == kKept; }));
  std::size_t rounds = 0;
  while (rounds < kRounds || log_.Count("removed from the list") < kStarted) {
    for (const pid_t pid : Running("/opt/test/kept")) {
      ASSERT_EQ(kill(pid, SIGKILL), 0);
    }
    ++rounds;
    ASSERT_TRUE(log_.WaitForCount("PROCMGR : Restarting process again", rounds * kKept));
    // A child that hangs has not become the program, and never will.
    ASSERT_TRUE(Eventually([&] { return Running("/opt/test/kept").size() == kKept; }))
        << "after " << rounds << " rounds";
  }
  EXPECT_EQ(log_.Count("PROCMGR: can not find app"), 0U);
  EXPECT_EQ(log_.Count("pm revice child process errinfo"), 0U);
  EXPECT_EQ(daemon_->Services().size(), kKept);
}

}  // namespace
}  // namespace PmTest
