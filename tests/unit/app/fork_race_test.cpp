// Launches from several threads at once while others log, look users up, load a service file and
// throw. Whatever lock another thread holds while a child is made, no child may need it before its
// exec. PM_TEST_LAUNCHES is how many there are in all.
#include <cstdlib>
#include <stdexcept>

#include "app/manifest.h"
#include "app/user_groups.h"
#include "base/child_msg_pipe.h"
#include "base/text.h"
#include "base/user_lookup.h"
#include "core/log.h"
#include "sandbox/service_file.h"
#include "tests/support/children.h"
#include "tests/unit/app/launch_fixture.h"

namespace ProcMgr::App {
namespace {

constexpr int kLaunchers = 4;
constexpr int kExitCode = 42;

int LaunchesEach() {
  const char* const all = std::getenv("PM_TEST_LAUNCHES");
  return (all == nullptr ? 2400 : ParseNumber<int>(all).value_or(0)) / kLaunchers;
}

// Starts the record's program again and again; a launch that doesn't come to its end is a failure.
template <typename Record>
void Launch(Record app, std::atomic<int>& ended) {
  for (int i = LaunchesEach(); i > 0; --i) {
    ASSERT_TRUE(app.StartProcess());
    ASSERT_EQ(PmTest::Reap(app.pid_), kExitCode << 8) << i << " launches before the last";
    ++ended;
  }
}

void LoadFile(const std::string& path) {
  std::vector<ApplicationManifest> manifests;
  EXPECT_EQ(ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, path, manifests, {}), 0);
  EXPECT_EQ(manifests.size(), 1U);
}

// The loader's look-up of a frame takes locks of its own.
void Throw() {
  try {
    throw std::runtime_error("of another thread");
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "of another thread");
  }
}

using ForkRace = LaunchTest;

TEST_F(ForkRace, NoneHangsWhateverOthersDo) {
  // The real syslog, with its lock, and not the test's sink. Nobody reads the lines, and each tries
  // to connect, which holds the lock all the longer.
  SetLogSink(nullptr);
  OpenLog();
  ApplicationManifest::Fields fields = Fields();
  fields.arguments = {"--exit-code", std::to_string(kExitCode)};
  // A child that can't bind would say so, and nobody reads the pipe here.
  CloseChildMsgPipe();
  const std::string file = "/run/sandbox/services.yaml";
  sandbox_->WriteFile(file, PmSandbox::ServiceFile({{"service", kService, {}, {{"uid", "app"}}}}));

  std::atomic<bool> isOver = false;
  std::atomic<int> ended = 0;
  std::vector<std::thread> others;
  // Each lets go between its calls, for a lock that is taken again at once starves who waits for
  // it.
  const auto beside = [&](auto work) {
    others.emplace_back([&isOver, work] {
      for (; !isOver; std::this_thread::yield()) {
        work();
      }
    });
  };
  beside([] { LogDebug("a line of another thread"); });
  beside([] {
    EXPECT_TRUE(IsUserInGroup(kAppUid, kExtraGid));
    EXPECT_EQ(FindUserId("app"), kAppUid);
    EXPECT_EQ(FindGroupId("extra"), kExtraGid);
  });
  beside([file] { LoadFile(file); });
  beside(&Throw);
  std::vector<std::thread> launchers;
  for (int i = 0; i < kLaunchers - 1; ++i) {
    launchers.emplace_back([&] { Launch(GeneralRecord(fields), ended); });
  }
  launchers.emplace_back([&] { Launch(BaseRecord(fields), ended); });
  for (std::thread& launcher : launchers) {
    launcher.join();
  }
  isOver = true;
  for (std::thread& other : others) {
    other.join();
  }
  EXPECT_GT(ended, 0);
  EXPECT_EQ(ended, kLaunchers * LaunchesEach());
}

}  // namespace
}  // namespace ProcMgr::App
