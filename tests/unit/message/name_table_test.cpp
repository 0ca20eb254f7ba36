#include "message/name_table.h"

#include <poll.h>

#include <gtest/gtest.h>

#include <thread>

namespace ProcMgr {
namespace {

constexpr std::chrono::milliseconds kNoLimit{0};

bool IsReadable(int fd, int timeoutMs) {
  pollfd entry{fd, POLLIN, 0};
  return poll(&entry, 1, timeoutMs) == 1;
}

TEST(Openings, WaitIsBoundedAndNeedsAnOpening) {
  Openings openings;
  const std::string name = "a";
  {
    const Openings::Scope opening(openings, name, kNoLimit);
    EXPECT_FALSE(openings.WaitUntilFiled(std::chrono::milliseconds(20), [] { return false; }));
  }
  EXPECT_FALSE(openings.WaitUntilFiled(std::chrono::hours(1), [] { return false; }));
}

// Another channel's opening may go on for minutes.
TEST(Openings, WaitEndsWithTheOpeningThatFiles) {
  for (int i = 0; i < 500; ++i) {
    Openings openings;
    NameTable table;
    const std::string ownName = "a";
    const std::string otherName = "b";
    const Openings::Scope other(openings, otherName, kNoLimit);
    std::thread opener;
    {
      auto own = std::make_unique<Openings::Scope>(openings, ownName, kNoLimit);
      opener = std::thread([&table, own = std::move(own)]() mutable {
        table.Set("a", 5);
        own.reset();
      });
    }
    std::string name;
    EXPECT_TRUE(
        openings.WaitUntilFiled(std::chrono::hours(1), [&] { return table.NameOf(5, name); }));
    opener.join();
  }
}

TEST(Openings, NameHasOneAtATime) {
  Openings openings;
  const std::string name = "a";
  const Openings::Scope first(openings, name, kNoLimit);
  EXPECT_TRUE(first.IsFirst());
  { EXPECT_FALSE(Openings::Scope(openings, name, kNoLimit).IsFirst()); }
  // The end of the second must not have ended the first.
  EXPECT_FALSE(Openings::Scope(openings, name, kNoLimit).IsFirst());
}

// What was connected to the process that has ended must not be filed for the one that follows.
TEST(Openings, RestartOfThePeerBeginsItAgain) {
  Openings openings;
  const std::string name = "a";
  Openings::Scope opening(openings, name, kNoLimit);
  int filed = 0;
  const auto file = [&filed] { ++filed; };
  openings.Restarted(name, [] {});
  EXPECT_TRUE(IsReadable(opening.CancelFd(), 0));
  EXPECT_FALSE(opening.TryFile(file));
  EXPECT_EQ(filed, 0);
  EXPECT_FALSE(IsReadable(opening.CancelFd(), 0));
  EXPECT_TRUE(opening.TryFile(file));
  EXPECT_EQ(filed, 1);
}

TEST(Openings, GivingUpSticksWhateverElseHappens) {
  Openings openings;
  const std::string name = "a";
  openings.GiveUp(name);  // Nothing is under way.
  Openings::Scope opening(openings, name, kNoLimit);
  EXPECT_FALSE(IsReadable(opening.CancelFd(), 0));
  openings.GiveUp(name);
  openings.Restarted(name, [] {});
  EXPECT_TRUE(opening.TryFile([] {}));
  EXPECT_TRUE(IsReadable(opening.CancelFd(), 0));
}

TEST(Openings, PatienceEndsTheWait) {
  Openings openings;
  const std::string name = "a";
  Openings::Scope opening(openings, name, std::chrono::milliseconds(5));
  constexpr int kLongMs = 60'000;
  EXPECT_TRUE(IsReadable(opening.CancelFd(), kLongMs));
}

}  // namespace
}  // namespace ProcMgr
