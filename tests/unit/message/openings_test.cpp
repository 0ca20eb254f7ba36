#include "message/openings.h"

#include <poll.h>

#include <gtest/gtest.h>

#include <thread>

#include "message/cut_channels.h"
#include "message/name_table.h"

namespace ProcMgr {
namespace {

class OpeningsTest : public testing::Test {
 protected:
  std::shared_ptr<Openings::Scope> Begin(const std::string& name) {
    int error = -1;
    auto scope = openings_.Begin(name, error);
    EXPECT_EQ(error, 0);
    return scope;
  }

  Openings openings_;
};

TEST_F(OpeningsTest, WaitIsBoundedAndNeedsAnOpening) {
  {
    const auto opening = Begin("a");
    EXPECT_FALSE(openings_.WaitUntilFiled(std::chrono::milliseconds(20), [] { return false; }));
  }
  EXPECT_FALSE(openings_.WaitUntilFiled(std::chrono::hours(1), [] { return false; }));
}

// Another channel's opening may go on for minutes.
TEST_F(OpeningsTest, WaitEndsWithTheOpeningThatFiles) {
  const auto other = Begin("b");
  for (int i = 0; i < 500; ++i) {
    NameTable table;
    std::thread opener([&table, own = Begin("a")]() mutable {
      table.Set(table.Prepare("a"), 5);
      own.reset();
    });
    std::string name;
    EXPECT_TRUE(
        openings_.WaitUntilFiled(std::chrono::hours(1), [&] { return table.NameOf(5, name); }));
    opener.join();
  }
}

TEST_F(OpeningsTest, NameHasOneAtATime) {
  auto first = Begin("a");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Begin("a"), nullptr);
  // The end of the second must not have ended the first.
  EXPECT_TRUE(openings_.IsUnderWay("a"));
  EXPECT_EQ(Begin("a"), nullptr);
  first.reset();
  EXPECT_FALSE(openings_.IsUnderWay("a"));
  EXPECT_NE(Begin("a"), nullptr);
}

TEST_F(OpeningsTest, EndSticksAndIsForTheOneOpening) {
  openings_.End("a");  // Nothing is under way.
  auto first = Begin("a");
  const auto other = Begin("b");
  EXPECT_FALSE(first->IsEnding());
  openings_.End("a");
  EXPECT_TRUE(first->IsEnding());
  pollfd entry{first->CancelFd(), POLLIN, 0};
  EXPECT_EQ(poll(&entry, 1, 0), 1);
  EXPECT_TRUE(first->IsEnding());
  EXPECT_FALSE(other->IsEnding());
  // The next of the name is another one.
  first.reset();
  EXPECT_FALSE(Begin("a")->IsEnding());
  openings_.EndAll();
  EXPECT_TRUE(other->IsEnding());
}

// A peer that cuts whatever it is given is given another every few seconds.
TEST(CutChannels, ComeWhenTheyHaveSettledAndNotTooOften) {
  CutChannels cuts;
  const auto fdsAt = [&cuts](SteadyTime now) {
    std::vector<int> fds;
    for (const CutChannels::Cut& cut : cuts.TakeDue(now)) {
      fds.push_back(cut.fd);
    }
    return fds;
  };
  constexpr std::chrono::nanoseconds kMoment{1};
  const SteadyTime begin = SteadyNow();
  const SteadyTime first = begin + CutChannels::kSettle;
  cuts.Note("a", 5, begin);
  EXPECT_EQ(fdsAt(first - kMoment), std::vector<int>{});
  EXPECT_EQ(fdsAt(first), std::vector<int>{5});
  cuts.Note("a", 6, first);
  cuts.Note("a", 7, first);
  cuts.Note("b", 8, first);
  EXPECT_EQ(fdsAt(first + CutChannels::kSettle), std::vector<int>{8});
  EXPECT_EQ(fdsAt(first + CutChannels::kApart - kMoment), std::vector<int>{});
  EXPECT_EQ(fdsAt(first + CutChannels::kApart), std::vector<int>{7});
  EXPECT_EQ(fdsAt(SteadyTime::max()), std::vector<int>{});
}

}  // namespace
}  // namespace ProcMgr
