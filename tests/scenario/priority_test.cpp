// What comes up before the base services, the quick start, and the hand-over to the owners.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kEntry = "/run/sandbox/entry.yaml";

class Priority : public ScenarioTest {
 protected:
  // A launcher that owns the applications of the entry file and never serves a channel.
  void BootWith(const std::vector<App>& entries, std::vector<std::string> arguments = {}) {
    sandbox_.WriteFile(kEntry, ServiceFile(entries));
    Boot({Service("launcher", {}, {{"startupEntryPath", kEntry}})}, std::move(arguments));
  }

  // The names in the order of their starts.
  std::vector<std::string> Started() {
    std::vector<std::string> names;
    constexpr std::string_view kMark = "Start priority generalApp success appName=";
    for (const LogLine& line : log_.Lines()) {
      if (const auto at = line.text.find(kMark); at != std::string::npos) {
        const std::string rest = line.text.substr(at + kMark.size());
        names.push_back(rest.substr(0, rest.find(',')));
      }
    }
    return names;
  }
};

TEST_F(Priority, StartsInOrderBeforeAnyBaseService) {
  BootWith({Service("third", {}, {{"startupPriority", "3"}}),
            Service("never"),
            Service("b-first", {}, {{"startupPriority", "1"}}),
            Service("a-first", {}, {{"startupPriority", "1"}}),
            {"broken", "/opt/test/nothing", {}, {{"startupPriority", "2"}}}});
  AwaitBooted();
  EXPECT_THAT(Started(), ElementsAre("a-first", "b-first", "third"));
  EXPECT_EQ(log_.Count("Start priority generalApp failed appName=broken, child_pid=0"), 1U);
  const auto finished = log_.WaitFor("InitPriorityApps start priority apps finish");
  const auto base = log_.WaitFor("Start baseApp success appName=launcher");
  ASSERT_TRUE(finished.has_value() && base.has_value());
  EXPECT_LT(*finished, *base);
}

// Dies at once, is listed twice, has an owner who never comes: nothing is left over. Of two alike
// the one of the file that comes first counts.
TEST_F(Priority, EndsAreSeenAndDoublesAreNot) {
  const App twice = Service("twice", {}, {{"startupPriority", "5"}});
  sandbox_.WriteFile("/run/sandbox/second.yaml",
                     ServiceFile({twice, {"short", "/bin/true", {}, {{"startupPriority", "1"}}}}));
  sandbox_.WriteFile(kEntry, ServiceFile({twice}));
  Boot({Service("launcher", {}, {{"startupEntryPath", kEntry}}),
        Service("second", {}, {{"startupEntryPath", "/run/sandbox/second.yaml"}})});
  AwaitBooted();
  EXPECT_TRUE(Await("Process short removed from the list of generalAppMap_"));
  EXPECT_THAT(Started(), ElementsAre("short", "twice"));
  EXPECT_EQ(log_.Count("priority app=twice is started already, ignore it from owner=second"), 1U);
  EXPECT_TRUE(daemon_->Zombies().empty());
  EXPECT_EQ(daemon_->Services().size(), 3U);
}

TEST_F(Priority, QuickStartWaitsForTheSignalAndMakesUpForWhatChildrenLeftOut) {
  BootWith({Service("early", {"--threads", "3", "--touch", "/run/sandbox/early"},
                    {{"startupPriority", "1"}, {"coreAffinity", "[0]"}})},
           {"true"});
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "InitPriorityApps start priority apps finish"));
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "Start priority generalApp success appName=early"));
  const std::vector<pid_t> early = daemon_->Services();
  ASSERT_EQ(early.size(), 1U);
  ASSERT_TRUE(Eventually([&] { return Threads(early.front()).size() == 4; }));
  // Outside its groups as long as the quick start lasts.
  const std::string cgroup = "/proc/" + std::to_string(early.front()) + "/cgroup";
  EXPECT_THAT(sandbox_.ReadFile(cgroup), ::testing::Not(HasSubstr("CtrlCPU")));
  EXPECT_EQ(log_.Count("InitBaseApplication begin"), 0U);

  ASSERT_EQ(kill(daemon_->Pid(), SIGCONT), 0);
  AwaitBooted();
  EXPECT_TRUE(
      WaitForKernelLog(sandbox_, "wait success for continue startup, catch continue signal"));
  for (const pid_t tid : Threads(early.front())) {
    EXPECT_THAT(sandbox_.ReadFile("/proc/" + std::to_string(tid) + "/cgroup"),
                HasSubstr("CtrlCPU"));
    EXPECT_EQ(StatusField(tid, "Cpus_allowed_list"), "0") << tid;
  }
  // The quick start is over for good: the routed lines are back in syslog.
  EXPECT_EQ(log_.Count("pm Get board info success"), 1U);
  ASSERT_EQ(kill(daemon_->Pid(), SIGCONT), 0);
  EXPECT_TRUE(daemon_->IsRunning());
}

TEST_F(Priority, EarlySignalEndsTheWait) {
  BootWith({Service("early", {}, {{"startupPriority", "1"}})}, {"true"});
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "init success"));
  ASSERT_EQ(kill(daemon_->Pid(), SIGCONT), 0);
  AwaitBooted();
  EXPECT_FALSE(WaitForKernelLog(sandbox_, "timeout!!", std::chrono::milliseconds(0)));
}

// Every word but "true" is a normal start, and a SIGCONT then does nothing.
TEST_F(Priority, OtherWordsAreNoQuickStart) {
  BootWith({Service("early", {}, {{"startupPriority", "1"}})}, {"TRUE"});
  AwaitBooted();
  ASSERT_EQ(kill(daemon_->Pid(), SIGCONT), 0);
  EXPECT_EQ(log_.Count("is not quickstart"), 1U);
  EXPECT_EQ(sandbox_.ReadFile("/dev/kmsg"), "");
}

}  // namespace
}  // namespace PmTest
