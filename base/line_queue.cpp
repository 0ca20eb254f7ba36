#include "base/line_queue.h"

#include <algorithm>
#include <utility>

#include "base/block_signals.h"

namespace ProcMgr {
namespace {

// Those who wait for room are woken when there is some for many lines. On a busy machine each
// change between them and the writer costs milliseconds.
constexpr std::size_t kFreedAtOnce = LineRing::kMaxLines / 4;

}  // namespace

LineQueue::~LineQueue() {
  (void)End(std::chrono::milliseconds(0));
  if (thread_.joinable()) {
    thread_.join();
  }
}

void LineQueue::Start() {
  {
    const MutexLock lock(mutex_);
    isOpen_ = true;
    if (isWriting_) {
      return;  // One that End has left behind goes on.
    }
    isWriting_ = true;
  }
  if (thread_.joinable()) {
    thread_.join();  // It had left its body, after a write that took longer than End waited.
  }
  try {
    const BlockSignals guard;
    thread_ = std::thread(&LineQueue::Body, this);
  } catch (...) {
    const MutexLock lock(mutex_);
    isOpen_ = false;
    isWriting_ = false;
    throw;
  }
}

void LineQueue::Push(int level, std::string_view text, Urgency urgency) {
  bool wakes = false;
  {
    const MutexLock lock(mutex_);
    if (!isOpen_) {
      return;
    }
    while (!TryPush(level, text)) {
      if (!AwaitRoom()) {
        ++lost_;
        return;
      }
    }
    wakes = (urgency == Urgency::kNow || ring_.Lines() >= kTogether) && TakeSleep();
  }
  if (wakes) {
    filled_.NotifyOne();
  }
}

void LineQueue::Flush() {
  bool wakes = false;
  {
    const MutexLock lock(mutex_);
    wakes = !ring_.IsEmpty() && TakeSleep();
  }
  if (wakes) {
    filled_.NotifyOne();
  }
}

bool LineQueue::TryPush(int level, std::string_view text) {
  const bool isFirst = ring_.IsEmpty();
  if (!ring_.Push(level, lost_, text)) {
    return false;
  }
  lost_ = 0;
  if (isFirst && !isAsleep_) {
    progressAt_ = SteadyNow();
  }
  return true;
}

bool LineQueue::TakeSleep() {
  if (!std::exchange(isAsleep_, false)) {
    return false;
  }
  progressAt_ = SteadyNow();
  return true;
}

bool LineQueue::AwaitRoom() {
  if (TakeSleep()) {
    filled_.NotifyOne();
  }
  const SteadyTime deadline = progressAt_ + patience_;
  if (!isOpen_ || SteadyNow() >= deadline) {
    return false;
  }
  ++waiters_;
  (void)room_.WaitUntil(mutex_, deadline);  // The ring tells whether there is room.
  --waiters_;
  return true;
}

bool LineQueue::End(std::chrono::milliseconds patience) {
  const SteadyTime deadline = SteadyNow() + patience;
  {
    const MutexLock lock(mutex_);
    isOpen_ = false;
    filled_.NotifyOne();
    room_.NotifyAll();
    while (isWriting_) {
      if (!ended_.WaitUntil(mutex_, deadline) && isWriting_) {
        return false;
      }
    }
  }
  if (thread_.joinable()) {
    thread_.join();
  }
  return true;
}

void LineQueue::Body() {
  const MutexLock lock(mutex_);
  for (;;) {
    if (!ring_.IsEmpty()) {
      WriteFront();
    } else if (lost_ > 0) {
      WriteLoss();
    } else if (isOpen_) {
      AwaitLine();
    } else {
      isWriting_ = false;
      ended_.NotifyAll();
      return;
    }
  }
}

void LineQueue::AwaitLine() {
  isAsleep_ = true;
  while (isAsleep_ && isOpen_) {
    filled_.Wait(mutex_);
  }
  isAsleep_ = false;
}

// The line stays in the ring meanwhile, so nobody overwrites it.
void LineQueue::WriteFront() {
  const LineRing::Line line = ring_.Front();
  mutex_.Unlock();
  if (line.lostBefore > 0) {
    writer_.TellLost(line.lostBefore);
  }
  writer_.Write(line.level, line.text);
  mutex_.Lock();
  ring_.Pop();
  NoteProgress();
}

void LineQueue::WriteLoss() {
  const std::uint64_t count = lost_;
  lost_ = 0;
  mutex_.Unlock();
  writer_.TellLost(count);
  mutex_.Lock();
}

void LineQueue::NoteProgress() {
  const SteadyTime now = SteadyNow();
  patience_ += kPatienceOfALine;
  if (waiters_ > 0) {
    patience_ -= now - progressAt_;
  }
  patience_ = std::clamp<SteadyTime::duration>(patience_, {}, kPatience);
  progressAt_ = now;
  ++freed_;
  if (freed_ >= kFreedAtOnce || ring_.IsEmpty()) {
    freed_ = 0;
    room_.NotifyAll();
  }
}

}  // namespace ProcMgr
