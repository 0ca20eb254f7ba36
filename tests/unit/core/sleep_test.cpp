#include "core/sleep.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "core/steady_time.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStormLimit{10'000};

std::atomic<int> signalsTaken = 0;

void CountSignal(int) {
  signalsTaken.fetch_add(1);
}

// Interrupts one thread as fast as it can be interrupted, until the end of its scope.
class SignalStorm {
 public:
  explicit SignalStorm(pthread_t target)
      : thread_([this, target] {
          // A thread that sleeps wakes for each signal only if the one before has been taken.
          for (int sent = 0; Blowing(); ++sent) {
            (void)pthread_kill(target, SIGUSR1);
            while (Blowing() && signalsTaken.load() <= sent) {
              std::this_thread::yield();
            }
          }
        }) {}
  ~SignalStorm() {
    stop_ = true;
    thread_.join();
  }
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  // It dies down by itself, so that a sleep that it holds up ends in a failure and not never.
  bool Blowing() const { return !stop_.load() && ProcMgr::SteadyNow() < end_; }

  std::atomic<bool> stop_ = false;
  const ProcMgr::SteadyTime end_ = ProcMgr::SteadyNow() + kStormLimit;
  std::thread thread_;
};

TEST(SleepNs, SleepsItsWholeTimeAndNoMoreUnderAStormOfSignals) {
  struct sigaction action {};
  action.sa_handler = &CountSignal;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  {
    const SignalStorm storm(pthread_self());
    ProcMgr::SleepNs(300'000'000);
  }
  const auto slept = ProcMgr::SteadyNow() - begin;

  EXPECT_GE(slept, milliseconds(300));
  EXPECT_LT(slept, kStormLimit) << "the signals held it up";
  // A sanitizer holds signals back; a few are a storm there.
  EXPECT_GT(signalsTaken.load(), 3);
}

TEST(SleepNs, NothingToSleepReturnsAtOnce) {
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  ProcMgr::SleepNs(0);
  ProcMgr::SleepNs(-1);
  EXPECT_LT(ProcMgr::SteadyNow() - begin, kStormLimit);
}

}  // namespace
