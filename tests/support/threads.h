// What tests with several threads share.
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "sandbox/wait.h"

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

using Lines = std::vector<std::string>;

// Runs body(0) to body(count - 1), each on a thread of its own, and waits for their ends.
template <typename Body>
void OnThreads(int count, const Body& body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&body, i] { body(i); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// A gate that callbacks wait at until a test opens it.
class Gate {
 public:
  void Pass() {
    ++arrivals_;
    open_.wait(false);
  }
  void Open() {
    open_ = true;
    open_.notify_all();
  }
  // Waits until `count` threads have come to the gate.
  [[nodiscard]] bool AwaitArrivals(int count) const {
    return Eventually([this, count] { return arrivals_ >= count; });
  }

 private:
  std::atomic<bool> open_ = false;
  std::atomic<int> arrivals_ = 0;
};

// Lines that any thread adds and a test awaits, in the order of the calls.
class LineRecorder {
 public:
  void Add(std::string line) EXCLUDES(mutex_) {
    const ProcMgr::MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
    added_.NotifyAll();
  }
  // Waits for at least `count` lines and yields all; fewer if they don't come.
  [[nodiscard]] Lines Await(std::size_t count) const EXCLUDES(mutex_) {
    const ProcMgr::MutexLock lock(mutex_);
    const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
    while (lines_.size() < count && added_.WaitUntil(mutex_, deadline)) {
    }
    return lines_;
  }

 private:
  mutable ProcMgr::Mutex mutex_;
  mutable ProcMgr::CondVar added_;
  Lines lines_ GUARDED_BY(mutex_);
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_THREADS_H
