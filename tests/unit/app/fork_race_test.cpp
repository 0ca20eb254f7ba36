// Launches from several threads at once while others log, look users up and throw. Whatever lock
// another thread holds while a child is made, no child may need it before its exec.
#include <atomic>
#include <thread>

#include "app/user_groups.h"
#include "base/child_msg_pipe.h"
#include "base/user_lookup.h"
#include "core/log.h"
#include "tests/support/children.h"
#include "tests/unit/app/launch_fixture.h"

namespace ProcMgr::App {
namespace {

constexpr int kLaunchers = 3;
constexpr int kLaunchesEach = 800;

// Starts the record's program again and again; a launch that doesn't come to its end is a failure.
template <typename Record>
void Launch(Record app, std::atomic<int>& ended) {
  for (int i = 0; i < kLaunchesEach; ++i) {
    ASSERT_TRUE(app.StartProcess());
    ASSERT_EQ(PmTest::Reap(app.pid_), 0) << "launch " << i;
    ++ended;
  }
}

using ForkRace = LaunchTest;

TEST_F(ForkRace, NoneHangsWhileOthersLogAndLookUpUsers) {
  // The real syslog, with its lock, and not the test's sink. Nobody reads the lines, and each tries
  // to connect, which holds the lock all the longer.
  SetLogSink(nullptr);
  OpenLog();
  ApplicationManifest::Fields fields = Fields();
  fields.arguments = {"--exit-code", "0"};
  // A child that can't bind would say so, and nobody reads the pipe here.
  CloseChildMsgPipe();

  std::atomic<bool> isOver = false;
  std::atomic<int> ended = 0;
  // Each lets go between its calls, for a lock that is taken again at once starves who waits for
  // it.
  std::thread logger([&] {
    for (; !isOver; std::this_thread::yield()) {
      LogDebug("a line of another thread");
    }
  });
  std::thread searcher([&] {
    for (; !isOver; std::this_thread::yield()) {
      EXPECT_TRUE(IsUserInGroup(kAppUid, kExtraGid));
      EXPECT_EQ(FindUserId("app"), kAppUid);
      EXPECT_EQ(FindGroupId("extra"), kExtraGid);
    }
  });
  std::vector<std::thread> launchers;
  for (int i = 0; i < kLaunchers - 1; ++i) {
    launchers.emplace_back([&] { Launch(GeneralRecord(fields), ended); });
  }
  launchers.emplace_back([&] { Launch(BaseRecord(fields), ended); });
  for (std::thread& launcher : launchers) {
    launcher.join();
  }
  isOver = true;
  logger.join();
  searcher.join();
  EXPECT_EQ(ended, kLaunchers * kLaunchesEach);
}

}  // namespace
}  // namespace ProcMgr::App
