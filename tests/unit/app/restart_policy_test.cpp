#include <gtest/gtest.h>

#include "app/app_info.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

BaseAppInfo RecordWith(const std::string& restart) {
  ApplicationManifest::Fields fields;
  fields.appName = "svc";
  fields.restart = restart;
  return BaseAppInfo(ApplicationManifest(fields));
}

TEST(RestartWindow, SixthIsRefusedWithinTheWindowAndGrantedBehindIt) {
  const SteadyTime start = SteadyNow();
  constexpr nanoseconds kWindow{60'001'000'000};
  for (const nanoseconds gap : {nanoseconds(milliseconds(5)), kWindow - nanoseconds(1), kWindow}) {
    SCOPED_TRACE(gap.count());
    BaseAppInfo app = RecordWith("on-failure");
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(app.CheckRestartAt(start + milliseconds(i))) << i;
    }
    (void)TakeLog();
    const bool isGranted = gap >= kWindow;
    EXPECT_EQ(app.CheckRestartAt(start + gap), isGranted);
    EXPECT_EQ(app.restartTimes_.size(), 5U) << "the oldest is forgotten";
    EXPECT_EQ(app.restart_, isGranted ? "on-failure" : "no");
    if (!isGranted) {
      EXPECT_EQ(TakeLog(),
                Lines{"E PROCMGR : Process=svc has restart 5 times in recent 60000 ms."});
      EXPECT_FALSE(app.CheckRestartAt(start + std::chrono::hours(1))) << "the refusal is final";
    }
  }
}

// The window slides: what counts is the oldest of the last five, not the first of all.
TEST(RestartWindow, SlidesWithEachRestart) {
  BaseAppInfo app = RecordWith("on-failure");
  SteadyTime now = SteadyNow();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(app.CheckRestartAt(now)) << i;
    now += milliseconds(12'001);
  }
  EXPECT_FALSE(app.CheckRestartAt(now - milliseconds(12'001)));
}

TEST(RestartPolicy, Words) {
  struct {
    const char* word;
    bool isRestarted;
    int granted;  // Of a hundred restarts at once.
  } const rows[] = {
      {"on-failure", true, 5},
      {"on-forever", true, 100},
      {"on-until-succeed", false, 0},
      {"no", false, 0},
      {"", false, 0},
      {"On-Failure", false, 0},
      {"on-failure ", false, 0},
  };
  const SteadyTime now = SteadyNow();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.word);
    BaseAppInfo app = RecordWith(row.word);
    EXPECT_EQ(app.IsRestartKept(), row.isRestarted);
    int granted = 0;
    for (int i = 0; i < 100; ++i) {
      granted += app.CheckRestartAt(now) ? 1 : 0;
    }
    EXPECT_EQ(granted, row.granted);
  }
}

}  // namespace
}  // namespace ProcMgr::App
