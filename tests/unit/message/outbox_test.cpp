#include "message/outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "message/closings.h"
#include "tests/unit/message/fake_nexio.h"

namespace ProcMgr {
namespace {

using Test::FakeNexio;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// An outbox in front of a library that refuses as it is told. What is known comes as "name result".
class OutboxTest : public testing::Test {
 protected:
  OutboxTest() { fake_.Reset(); }

  int Send(int fd, const std::string& name, std::vector<std::string_view> frames) {
    return outbox_.Send(fd, {.frames = std::move(frames)}, [this, name](int result) {
      known_.push_back(name + " " + std::to_string(result));
    });
  }
  void Refuse(int times) {
    for (int i = 0; i < times; ++i) {
      fake_->sendResults.push_back(kNexioBusy);
    }
  }
  // What has reached the peers since the last call, as "fd:frame".
  std::vector<std::string> Arrived() {
    std::vector<std::string> arrived;
    for (const ProcMgr::Test::Sent& sent : fake_->sent) {
      arrived.push_back(std::to_string(sent.fd) + ":" + sent.data);
    }
    fake_->sent.clear();
    return arrived;
  }

  FakeNexio& fake_ = FakeNexio::Instance();
  std::vector<std::string> known_;
  Outbox outbox_;
};

TEST_F(OutboxTest, KeepsTheOrderOfAChannelAndLeavesOthersAlone) {
  Refuse(1);
  EXPECT_EQ(Send(1, "a", {"a1", "a2"}), Outbox::kWaits);
  EXPECT_EQ(Send(1, "b", {"b1"}), Outbox::kWaits);
  EXPECT_EQ(Send(2, "c", {"c1"}), 0);
  EXPECT_THAT(Arrived(), ElementsAre("2:c1"));
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_THAT(Arrived(), ElementsAre("1:a1", "1:a2", "1:b1"));
  EXPECT_THAT(known_, ElementsAre("c 0", "a 0", "b 0"));
  EXPECT_EQ(Send(1, "d", {"d1"}), 0);
}

TEST_F(OutboxTest, EveryFrameHasItsTries) {
  Refuse(Outbox::kTries - 1);
  (void)Send(1, "a", {"a1", "a2"});
  for (int i = 1; i < Outbox::kTries - 1; ++i) {
    ASSERT_TRUE(outbox_.TryWaiting()) << i;
  }
  EXPECT_THAT(known_, IsEmpty());
  // The last try of the first frame is accepted, and the count begins anew for the second.
  fake_->sendResults = {0};
  Refuse(Outbox::kTries);
  for (int i = 0; i < Outbox::kTries - 1; ++i) {
    ASSERT_TRUE(outbox_.TryWaiting()) << i;
  }
  EXPECT_THAT(known_, IsEmpty());
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_THAT(known_, ElementsAre("a -11"));
  EXPECT_THAT(Arrived(), ElementsAre("1:a1"));
}

// A peer that has used up the tries of one frame gets one for each of those behind it.
TEST_F(OutboxTest, BehindAFailureEachHasOneTryUntilOneIsAccepted) {
  Refuse(Outbox::kTries);
  for (const char* const name : {"a", "b", "c", "d", "e"}) {
    (void)Send(1, name, {name});
  }
  for (int i = 0; i < Outbox::kTries - 2; ++i) {
    ASSERT_TRUE(outbox_.TryWaiting());
  }
  Refuse(1);
  fake_->sendResults.push_back(0);
  Refuse(1);
  EXPECT_TRUE(outbox_.TryWaiting());
  EXPECT_THAT(known_, ElementsAre("a -11", "b -11", "c 0"));
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_THAT(Arrived(), ElementsAre("1:c", "1:d", "1:e"));
}

TEST_F(OutboxTest, OtherFailuresEndTheMessageOnly) {
  fake_->sendResults = {0, kNexioBroken};
  EXPECT_EQ(Send(1, "a", {"a1", "a2", "a3"}), kNexioBroken);
  fake_->sendResults = {kNexioBusy, kNexioBroken};
  (void)Send(1, "b", {"b1"});
  (void)Send(1, "c", {"c1"});
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_THAT(known_, ElementsAre("a -32", "b -32", "c 0"));
  EXPECT_THAT(Arrived(), ElementsAre("1:a1", "1:c1"));
}

TEST_F(OutboxTest, IsFullAtItsBound) {
  const std::string half(Outbox::kMaxBytes / 2, 'x');
  Refuse(1);
  EXPECT_EQ(Send(1, "a", {half}), Outbox::kWaits);
  EXPECT_EQ(Send(1, "b", {half}), Outbox::kWaits);
  EXPECT_EQ(Send(1, "c", {"c"}), kNexioBusy);
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_EQ(Send(1, "d", {"d"}), 0);
  EXPECT_THAT(known_, ElementsAre("c -11", "a 0", "b 0", "d 0"));
}

TEST_F(OutboxTest, OneMessageMayBeAsLongAsItTakes) {
  const std::string part(Outbox::kMaxBytes, 'x');
  Refuse(1);
  EXPECT_EQ(Send(1, "long", {part, part}), Outbox::kWaits);
  EXPECT_EQ(Send(1, "more", {"m"}), kNexioBusy);
  EXPECT_FALSE(outbox_.TryWaiting());
  EXPECT_THAT(known_, ElementsAre("more -11", "long 0"));
}

// Whoever sends while the outcomes of a channel are being told is told behind them.
TEST_F(OutboxTest, OutcomesComeInTheOrderOfTheSends) {
  Refuse(1);
  (void)outbox_.Send(1, {.frames = {"a"}}, [this](int) {
    (void)Send(1, "c", {"c"});
    known_.emplace_back("a");
  });
  (void)Send(1, "b", {"b"});
  while (outbox_.TryWaiting()) {
  }
  EXPECT_THAT(known_, ElementsAre("a", "b 0", "c 0"));
}

TEST_F(OutboxTest, ResponsesKeepTheirNumber) {
  Refuse(1);
  (void)outbox_.Send(3, {.isResponse = true, .seq = 7, .frames = {"late"}}, [](int) {});
  EXPECT_FALSE(outbox_.TryWaiting());
  ASSERT_EQ(fake_->sent.size(), 1U);
  EXPECT_EQ(fake_->sent[0].seq, 7U);
}

TEST(Closings, AreTriedAtTheirPaceUpToTheirNumber) {
  struct Case {
    int busy;
    int last;
    int tries;
    int result;
  };
  const Case cases[] = {{0, 0, 1, 0},
                        {0, kNexioBadFd, 1, kNexioBadFd},
                        {19, 3, 20, 3},
                        {19, kNexioBroken, 20, kNexioBroken},
                        {30, 0, 20, kNexioCallback}};
  for (const Case& test : cases) {
    SCOPED_TRACE(test.busy);
    Closings closings;
    int tries = 0;
    std::vector<int> told;
    SteadyTime now{};
    bool waits = closings.Close({[&] { return ++tries <= test.busy ? kNexioCallback : test.last; },
                                 20, [&](int result) { told.push_back(result); }},
                                now);
    while (waits) {
      const SteadyTime due = now + Closings::kPause;
      now = due - std::chrono::milliseconds(1);
      EXPECT_EQ(closings.TryDue(now), due);
      now = due;
      waits = closings.TryDue(now) != SteadyTime::max();
    }
    EXPECT_EQ(tries, test.tries);
    EXPECT_THAT(told, ElementsAre(test.result));
  }
}

}  // namespace
}  // namespace ProcMgr
