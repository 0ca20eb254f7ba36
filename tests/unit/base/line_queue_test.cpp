// A queue between those who log and a reader that keeps up, is slow, or doesn't read at all.
#include "base/line_queue.h"

#include <pthread.h>

#include <deque>
#include <functional>
#include <random>
#include <semaphore>

#include "base/sleep.h"
#include "base/steady_time.h"
#include "sandbox/wait.h"
#include "tests/support/test.h"
#include "tests/support/threads.h"

namespace ProcMgr {
namespace {

using PmTest::Gate;

// Keeps what is written, each line once `before` has returned. Of a loss it keeps "lost N".
class Recorder : public LineWriter {
 public:
  explicit Recorder(std::function<void()> before = [] {}) : before_(std::move(before)) {}

  void Write(int level, const char* text) override {
    before_();
    lines_.Add(std::to_string(level) + ' ' + text);
  }
  void TellLost(std::uint64_t count) override { lines_.Add("lost " + std::to_string(count)); }

  [[nodiscard]] PmTest::Lines Await(std::size_t count) const { return lines_.Await(count); }

 private:
  const std::function<void()> before_;
  PmTest::LineRecorder lines_;
};

std::string Numbered(int i) {
  return "line " + std::to_string(i);
}

// What a recorder keeps of the lines from `begin` to `end`.
PmTest::Lines Written(int begin, int end) {
  PmTest::Lines lines;
  for (int i = begin; i < end; ++i) {
    lines.push_back("6 " + Numbered(i));
  }
  return lines;
}

constexpr int kFull = static_cast<int>(LineRing::kMaxLines);

// Lines of every length go round the memory many times, and come out as they went in.
TEST(LineRing, KeepsLinesOfAnyLengthInTheirOrder) {
  LineRing ring;
  std::deque<std::string> model;
  std::minstd_rand random(1);  // NOLINT(cert-msc51-cpp): the same lines in every run.
  std::size_t refused = 0;
  for (int step = 0; step < 200'000; ++step) {
    const bool isFilling = step / 10'000 % 2 == 0;
    if (random() % 8 < (isFilling ? 7U : 1U)) {
      const std::size_t size =
          random() % 50 == 0 ? random() % (LineRing::kMaxTextBytes + 1) : random() % 300;
      const std::string text(size, static_cast<char>('a' + random() % 26));
      if (ring.Push(step % 8, size, text)) {
        model.push_back(text);
      } else {
        ++refused;
        ASSERT_FALSE(model.empty()) << "an empty ring takes any line";
      }
    } else if (!model.empty()) {
      const LineRing::Line line = ring.Front();
      ASSERT_EQ(line.text, model.front()) << step;
      ASSERT_EQ(line.lostBefore, model.front().size());
      ring.Pop();
      model.pop_front();
    }
    ASSERT_EQ(ring.IsEmpty(), model.empty());
    ASSERT_LE(model.size(), LineRing::kMaxLines);
  }
  EXPECT_GT(refused, 100U) << "never full";
}

TEST(LineQueue, WritesInOrderOnAThreadThatNoSignalReaches) {
  std::atomic<std::size_t> unblocked = 0;
  Recorder recorder([&unblocked] {
    sigset_t mask;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    unblocked += sigismember(&mask, SIGTERM) == 0 ? 1U : 0U;
  });
  LineQueue queue(recorder);
  queue.Push(6, "nobody writes this: it comes before the start");
  for (int life = 0; life < 2; ++life) {
    queue.Start();
    queue.Start();
    for (int i = life * 100; i < life * 100 + 100; ++i) {
      queue.Push(6, Numbered(i));
    }
    EXPECT_TRUE(queue.End(PmSandbox::kPatience));
    queue.Push(6, "nobody writes this: it comes after the end");
  }
  EXPECT_EQ(recorder.Await(200), Written(0, 200));
  EXPECT_EQ(unblocked, 0U);
}

// Each of these ends the wait: a line of somebody else, a flush, as many as may wait, and the end.
TEST(LineQueue, LinesThatMayWaitAreWrittenTogether) {
  constexpr int kMost = static_cast<int>(LineQueue::kTogether);
  Recorder recorder;
  LineQueue queue(recorder);
  queue.Start();
  int next = 0;
  const auto pushLater = [&](int count) {
    SleepNs(2'000'000);  // A moment for the writer to fall asleep; awake it is to write them, too.
    for (int i = 0; i < count; ++i) {
      queue.Push(6, Numbered(next++), LineQueue::Urgency::kTogether);
    }
  };
  pushLater(2);
  queue.Push(6, Numbered(next++));
  EXPECT_EQ(recorder.Await(3), Written(0, 3));
  pushLater(1);
  queue.Flush();
  EXPECT_EQ(recorder.Await(4), Written(0, 4));
  pushLater(kMost);
  EXPECT_EQ(recorder.Await(4 + kMost), Written(0, 4 + kMost));
  pushLater(1);
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  EXPECT_EQ(recorder.Await(5 + kMost), Written(0, 5 + kMost));
}

TEST(LineQueue, WhatAStuckReaderLosesIsCountedInItsPlace) {
  Gate gate;
  Recorder recorder([&gate] { gate.Pass(); });
  LineQueue queue(recorder);
  queue.Start();
  const SteadyTime begin = SteadyNow();
  // The one that is being written keeps its room.
  for (int i = 0; i < kFull + 2000; ++i) {
    queue.Push(6, Numbered(i));
  }
  EXPECT_LT(SteadyNow() - begin, PmSandbox::PatienceFactor() * milliseconds(400))
      << "whoever logs waits once, and briefly";
  gate.Open();
  PmTest::Lines expected = Written(0, kFull);
  expected.emplace_back("lost 2000");
  // Told without a further line; and a line that follows comes behind it.
  EXPECT_EQ(recorder.Await(expected.size()), expected);
  queue.Push(6, "again");
  expected.emplace_back("6 again");
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  EXPECT_EQ(recorder.Await(expected.size()), expected);
}

TEST(LineQueue, TheFirstLineThatFitsAgainComesBehindTheLoss) {
  std::counting_semaphore<> permits(0);
  Recorder recorder([&permits] { permits.acquire(); });
  LineQueue queue(recorder);
  queue.Start();
  for (int i = 0; i < kFull + 7; ++i) {
    queue.Push(6, Numbered(i));
  }
  permits.release(10);
  (void)recorder.Await(10);
  // Some room at least; the rest of these lines is lost, or waits for no one.
  queue.Push(6, "fits");
  permits.release(2 * kFull);
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  PmTest::Lines expected = Written(0, kFull);
  expected.emplace_back("lost 7");
  expected.emplace_back("6 fits");
  EXPECT_EQ(recorder.Await(expected.size()), expected);
}

// Bursts larger than the queue, from several threads, while two others keep the cores busy.
TEST(LineQueue, AReaderThatKeepsUpLosesNothingOfABurst) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  Recorder recorder([] {});
  LineQueue queue(recorder);
  queue.Start();
  std::atomic<bool> isOver = false;
  std::vector<std::thread> burners;
  for (int i = 0; i < 2; ++i) {
    burners.emplace_back([&isOver] {
      while (!isOver) {
      }
    });
  }
  PmTest::OnThreads(kThreads, [&queue](int thread) {
    for (int i = 0; i < kEach; ++i) {
      queue.Push(thread, Numbered(i));
    }
  });
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  isOver = true;
  for (std::thread& burner : burners) {
    burner.join();
  }
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : recorder.Await(kThreads * kEach)) {
    ASSERT_FALSE(line.starts_with("lost")) << line;
    const auto thread = static_cast<std::size_t>(line[0] - '0');
    ASSERT_EQ(line.substr(2), Numbered(next[thread])) << "reordered";
    ++next[thread];
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kEach));
}

// A reader that takes a line in 2 ms may not slow its writers down to its own pace.
TEST(LineQueue, ASlowReaderCostsItsWritersLittleInAll) {
  constexpr int kLines = 3 * kFull;
  std::atomic<bool> isSlow = true;
  Recorder recorder([&isSlow] {
    if (isSlow) {
      SleepNs(2'000'000);
    }
  });
  LineQueue queue(recorder);
  queue.Start();
  const SteadyTime begin = SteadyNow();
  for (int i = 0; i < kLines; ++i) {
    queue.Push(6, Numbered(i));
  }
  EXPECT_LT(SteadyNow() - begin, PmSandbox::PatienceFactor() * milliseconds(600));
  isSlow = false;
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  std::size_t written = 0;
  std::size_t lost = 0;
  for (const std::string& line : recorder.Await(0)) {
    if (line.starts_with("lost ")) {
      lost += std::stoul(line.substr(5));
    } else {
      ++written;
    }
  }
  EXPECT_EQ(written + lost, std::size_t{kLines});
  EXPECT_GT(lost, 0U);
}

TEST(LineQueue, TheEndWaitsForWhatIsLeftButNotForAStuckReader) {
  Gate gate;
  Recorder recorder([&gate] { gate.Pass(); });
  LineQueue queue(recorder);
  EXPECT_TRUE(queue.End(milliseconds(0))) << "nothing was started";
  queue.Start();
  for (int i = 0; i < 10; ++i) {
    queue.Push(6, Numbered(i));
  }
  ASSERT_TRUE(gate.AwaitArrivals(1));
  const SteadyTime begin = SteadyNow();
  EXPECT_FALSE(queue.End(milliseconds(200)));
  EXPECT_GE(SteadyNow() - begin, milliseconds(200));
  EXPECT_LT(SteadyNow() - begin,
            milliseconds(200) + PmSandbox::PatienceFactor() * milliseconds(500));
  gate.Open();
  EXPECT_TRUE(queue.End(PmSandbox::kPatience));
  EXPECT_EQ(recorder.Await(10), Written(0, 10));
}

}  // namespace
}  // namespace ProcMgr
