#include "message/keeper.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "base/block_signals.h"
#include "base/immortal.h"
#include "base/mutex.h"
#include "base/steady_time.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr std::chrono::milliseconds kSendPause{5};

class Keeper {
 public:
  void Start() { CallBy(SteadyTime::max()); }

  int Send(int fd, const OutgoingMessage& message, SendOutcome outcome) {
    const int result = outbox_.Send(fd, message, std::move(outcome));
    if (result == Outbox::kWaits) {
      CallBy(SteadyNow() + kSendPause);
    }
    return result;
  }

  void Close(Closing closing) {
    const SteadyTime now = SteadyNow();
    if (closings_.Close(std::move(closing), now)) {
      CallBy(now + Closings::kPause);
    }
  }

 private:
  // Has the thread look after what waits at `when` at the latest.
  void CallBy(SteadyTime when) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (when < next_) {
      next_ = when;
      changed_.NotifyOne();
    }
    if (thread_.joinable()) {
      return;
    }
    try {
      const BlockSignals block;
      thread_ = std::thread([this] { Body(); });
      (void)pthread_setname_np(thread_.native_handle(), "keeper");
    } catch (const std::exception& error) {
      // The next that has something to leave tries again; it finds all that was left.
      LogError("PROCMGR: no thread to send later, exception=%s", error.what());
    }
  }

  void Body() EXCLUDES(mutex_) {
    while (true) {
      WaitForWork();
      try {
        const bool isSending = outbox_.TryWaiting();
        const SteadyTime next = closings_.TryDue(SteadyNow());
        CallBy(std::min(next, isSending ? SteadyNow() + kSendPause : SteadyTime::max()));
      } catch (const std::exception& error) {
        LogError("PROCMGR: Caught exception=%s", error.what());
        CallBy(SteadyNow() + kSendPause);
      }
    }
  }

  void WaitForWork() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (SteadyNow() < next_) {
      if (next_ == SteadyTime::max()) {
        changed_.Wait(mutex_);
      } else {
        (void)changed_.WaitUntil(mutex_, next_);
      }
    }
    next_ = SteadyTime::max();
  }

  Outbox outbox_;
  Closings closings_;

  Mutex mutex_;
  CondVar changed_;
  SteadyTime next_ GUARDED_BY(mutex_) = SteadyTime::max();
  std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace

void StartKeeper() {
  Immortal<Keeper>().Start();
}

int SendInOrder(int fd, const Serialization::PieceList& pieces, SendOutcome outcome) {
  OutgoingMessage message;
  message.frames.reserve(pieces.size());
  for (const Message::RequestMsg& frame : pieces) {
    message.frames.emplace_back(reinterpret_cast<const char*>(&frame), sizeof(frame));
  }
  return Immortal<Keeper>().Send(fd, message, std::move(outcome));
}

int RespondInOrder(int fd, std::uint32_t seq, std::string_view text, SendOutcome outcome) {
  return Immortal<Keeper>().Send(fd, {.isResponse = true, .seq = seq, .frames = {text}},
                                 std::move(outcome));
}

void CloseInTime(Closing closing) {
  Immortal<Keeper>().Close(std::move(closing));
}

}  // namespace ProcMgr
