#include "base/crew.h"

#include <algorithm>
#include <utility>

#include "base/block_signals.h"
#include "base/may_wait.h"
#include "base/steady_time.h"

namespace ProcMgr {

Crew::~Crew() {
  MayWait("Crew");
  const MutexLock lock(mutex_);
  isEnding_ = true;
  come_.NotifyAll();
  while (threads_.size() != ended_.size()) {
    left_.Wait(mutex_);
  }
  JoinEnded();
}

void Crew::Run(std::function<void()> job) {
  const MutexLock lock(mutex_);
  JoinEnded();
  jobs_.push_back(std::move(job));
  if (jobs_.size() <= idle_) {
    come_.NotifyOne();
    return;
  }
  if (threads_.size() == limit_) {
    return;
  }
  try {
    const BlockSignals block;
    threads_.emplace_back([this] { Body(); });
    ended_.reserve(threads_.size());
  } catch (...) {
    jobs_.pop_back();
    throw;
  }
}

void Crew::Body() {
  mutex_.Lock();
  while (AwaitJob()) {
    {
      const std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      mutex_.Unlock();
      job();
    }
    mutex_.Lock();
  }
  ended_.push_back(std::this_thread::get_id());
  left_.NotifyAll();
  mutex_.Unlock();
}

bool Crew::AwaitJob() {
  const SteadyTime deadline = SteadyNow() + kStay;
  ++idle_;
  while (jobs_.empty() && !isEnding_ && come_.WaitUntil(mutex_, deadline)) {
  }
  --idle_;
  return !jobs_.empty();
}

void Crew::JoinEnded() {
  for (const std::thread::id id : ended_) {
    const auto thread = std::find_if(threads_.begin(), threads_.end(),
                                     [id](const std::thread& each) { return each.get_id() == id; });
    thread->join();
    threads_.erase(thread);
  }
  ended_.clear();
}

}  // namespace ProcMgr
