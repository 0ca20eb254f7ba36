#include "base/sleep.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "base/steady_time.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStormLimit{10'000};

std::atomic<int> signalsTaken = 0;

TEST(SleepNs, SleepsItsWholeTimeAndNoMoreUnderAStormOfSignals) {
  struct sigaction action {};
  action.sa_handler = [](int) { signalsTaken.fetch_add(1); };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  std::atomic<bool> isOver = false;
  // It dies down by itself, so that a sleep that it holds up ends in a failure and not never.
  const auto isBlowing = [&] { return !isOver && ProcMgr::SteadyNow() < begin + kStormLimit; };
  std::thread storm([&isBlowing, target = pthread_self()] {
    // A thread that sleeps wakes for each signal only if the one before has been taken.
    for (int sent = 0; isBlowing(); ++sent) {
      (void)pthread_kill(target, SIGUSR1);
      while (isBlowing() && signalsTaken <= sent) {
        std::this_thread::yield();
      }
    }
  });
  ProcMgr::SleepNs(300'000'000);
  const auto slept = ProcMgr::SteadyNow() - begin;
  isOver = true;
  storm.join();

  EXPECT_GE(slept, milliseconds(300));
  EXPECT_LT(slept, kStormLimit) << "the signals held it up";
  // A sanitizer holds signals back; a few are a storm there.
  EXPECT_GT(signalsTaken, 3);
}

TEST(SleepNs, NothingToSleepReturnsAtOnce) {
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  ProcMgr::SleepNs(0);
  ProcMgr::SleepNs(-1);
  EXPECT_LT(ProcMgr::SteadyNow() - begin, kStormLimit);
}

}  // namespace
