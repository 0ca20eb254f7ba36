#include <gtest/gtest.h>

#include "app/app_info.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using std::chrono::milliseconds;

BaseAppInfo RecordWith(const std::string& restart) {
  ApplicationManifest::Fields fields;
  fields.appName = "svc";
  fields.restart = restart;
  return BaseAppInfo(ApplicationManifest(fields));
}

// Five restarts, the oldest at `start`, the others 1 ms apart.
void UseUp(BaseAppInfo& app, SteadyTime start) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(app.CheckRestartAt(start + milliseconds(i))) << i;
  }
  ASSERT_EQ(app.restartTimes_.size(), 5U);
}

TEST(RestartWindow, SixthIsRefusedWithinTheWindowAndGrantedBehindIt) {
  const SteadyTime start = SteadyNow();
  constexpr std::int64_t kWindow = 60'001'000'000;
  for (const std::int64_t gap : {std::int64_t{5'000'000}, std::int64_t{60'000'000'000}, kWindow - 1,
                                 kWindow, std::int64_t{60'002'000'000}}) {
    SCOPED_TRACE(gap);
    BaseAppInfo app = RecordWith("on-failure");
    UseUp(app, start);
    (void)TakeLog();
    const SteadyTime now = start + std::chrono::nanoseconds(gap);
    const bool isGranted = gap >= kWindow;
    EXPECT_EQ(app.CheckRestartAt(now), isGranted);
    ASSERT_EQ(app.restartTimes_.size(), 5U);
    if (isGranted) {
      EXPECT_EQ(TakeLog(), Lines{});
      EXPECT_EQ(app.restart_, "on-failure");
      EXPECT_EQ(app.restartTimes_.front(), start + milliseconds(1)) << "the oldest is forgotten";
      EXPECT_EQ(app.restartTimes_.back(), now);
    } else {
      EXPECT_EQ(TakeLog(),
                Lines{"E PROCMGR : Process=svc has restart 5 times in recent 60000 ms."});
      EXPECT_EQ(app.restart_, "no");
      EXPECT_FALSE(app.IsRestartKept());
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
  EXPECT_EQ(app.restartTimes_.size(), 5U);
  EXPECT_FALSE(app.CheckRestartAt(now - milliseconds(12'001)));
}

TEST(RestartPolicy, Words) {
  struct {
    const char* word;
    bool isRestarted;
    bool isKept;
    std::size_t counted;
  } const rows[] = {
      {"on-failure", true, true, 1},
      {"on-forever", true, true, 0},
      {"on-until-succeed", false, false, 0},
      {"no", false, false, 0},
      {"", false, false, 0},
      {"On-Failure", false, false, 0},
      {"on-failure ", false, false, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.word);
    BaseAppInfo app = RecordWith(row.word);
    EXPECT_EQ(app.IsRestartKept(), row.isKept);
    EXPECT_EQ(app.CheckRestart(), row.isRestarted);
    EXPECT_EQ(app.restartTimes_.size(), row.counted);
    EXPECT_EQ(app.restart_, row.word);
  }
}

TEST(RestartPolicy, OnForeverKnowsNoLimit) {
  BaseAppInfo app = RecordWith("on-forever");
  const SteadyTime now = SteadyNow();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(app.CheckRestartAt(now));
  }
  EXPECT_TRUE(app.restartTimes_.empty());
}

}  // namespace
}  // namespace ProcMgr::App
