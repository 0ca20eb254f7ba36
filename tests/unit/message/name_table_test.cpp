#include "message/name_table.h"

#include <gtest/gtest.h>

#include <thread>

namespace ProcMgr {
namespace {

TEST(NameTable, KeepsBothDirectionsInStep) {
  NameTable table;
  std::string name = "untouched";
  EXPECT_EQ(table.FdOf("a"), -1);
  table.Set("a", -1);
  EXPECT_FALSE(table.NameOf(-1, name));
  table.Set("a", 5);
  table.Set("b", 6);
  table.Set("a", 7);
  EXPECT_EQ(table.FdOf("a"), 7);
  EXPECT_FALSE(table.NameOf(5, name));
  EXPECT_EQ(name, "untouched");
  EXPECT_TRUE(table.NameOf(7, name));
  EXPECT_EQ(name, "a");

  EXPECT_EQ(table.TakeForClosing("a"), 7);
  EXPECT_EQ(table.FdOf("a"), -1);
  EXPECT_FALSE(table.NameOf(7, name));
  EXPECT_TRUE(table.IsClosing(7));
  EXPECT_EQ(table.TakeForClosing("a"), -1);
  EXPECT_EQ(table.TakeForClosing("never"), -1);
  EXPECT_FALSE(table.IsClosing(-1));
  EXPECT_TRUE(table.ClaimClosing(7));
  EXPECT_FALSE(table.ClaimClosing(7));
  EXPECT_TRUE(table.NameOf(6, name));
  EXPECT_EQ(name, "b");
}

TEST(Openings, WaitIsBounded) {
  Openings openings;
  const Openings::Scope opening(openings);
  EXPECT_FALSE(openings.WaitUntilFiled(std::chrono::milliseconds(20), [] { return false; }));
}

TEST(Openings, NoWaitWithoutAnOpening) {
  Openings openings;
  { const Openings::Scope over(openings); }
  EXPECT_FALSE(openings.WaitUntilFiled(std::chrono::hours(1), [] { return false; }));
}

// Another channel's opening may go on for minutes.
TEST(Openings, WaitEndsWithTheOpeningThatFiles) {
  for (int i = 0; i < 500; ++i) {
    Openings openings;
    NameTable table;
    const Openings::Scope other(openings);
    std::thread opener;
    {
      auto own = std::make_unique<Openings::Scope>(openings);
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

}  // namespace
}  // namespace ProcMgr
