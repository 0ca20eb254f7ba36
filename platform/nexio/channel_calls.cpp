// The thread that waits for a response, and the requests that it meets on the way.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "core/log.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// What the inbox may hold before nobody reads on; the rest waits with its sender.
constexpr std::size_t kInboxLimit = std::size_t{1} << 20;

// A call that ends so soon after another one is likely to be followed by a third.
constexpr auto kCallGap = std::chrono::microseconds(200);

// What a request may have to wait that comes between two such calls.
constexpr auto kWatchDelay = std::chrono::milliseconds(2);

// Where a thread that waits receives; empty if there is no memory for it. It may be a thread that
// serves, in a callback, while the request that it is working on still lies in its other buffer.
std::span<std::byte> CallBuffer() {
  thread_local std::unique_ptr<std::byte[]> buffer;
  if (buffer == nullptr) {
    try {
      buffer = std::make_unique_for_overwrite<std::byte[]>(kMaxPacket);
    } catch (const std::bad_alloc&) {
      return {};
    }
  }
  return {buffer.get(), kMaxPacket};
}

}  // namespace

int Channel::Call(const NexioRequest& request, NexioResponse& response,
                  std::optional<SteadyTime> deadline) {
  if (CallBuffer().empty()) {
    return -ENOMEM;
  }
  const MutexLock lock(mutex_);
  if (closed_ || broken_) {
    return closed_ ? kNexioBadFd : kNexioBroken;
  }
  Waiter waiter;
  try {
    waiters_.push_back(&waiter);
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
  waiter.seq = static_cast<std::uint32_t>(++seqCount_);
  waiter.response = &response;
  StopWatching();
  const int sent =
      SendPacket(socket_.Get(), PacketKind::kRequest, waiter.seq, request.data, request.size);
  if (sent < 0) {
    waiter.result = sent;
  }
  AwaitResponse(waiter, deadline);
  waiters_.remove(&waiter);
  RestAfterCall();
  return *waiter.result;
}

void Channel::RestAfterCall() {
  const SteadyTime now = SteadyNow();
  const bool inRow = now - std::exchange(lastCall_, now) < kCallGap;
  const bool quiet =
      waiters_.empty() && inbox_.empty() && !closed_ && !broken_ && !serving_ && !armed_;
  if (!inRow || !quiet) {
    Rest();
  } else if (!std::exchange(watchDelayed_, true)) {
    reactor_.SetAlarm(MyToken(), now + kWatchDelay);
  }
}

void Channel::AwaitResponse(Waiter& waiter, const std::optional<SteadyTime>& deadline) {
  while (!waiter.result) {
    if (closed_ || broken_) {
      waiter.result = closed_ ? kNexioBadFd : kNexioBroken;
    } else if (deadline && SteadyNow() >= *deadline) {
      waiter.result = kNexioTimeout;
    } else if (!reads_ && !InboxIsFull()) {
      ReadForWaiter(deadline);
    } else if (deadline) {
      (void)changed_.WaitUntil(mutex_, *deadline);
    } else {
      changed_.Wait(mutex_);
    }
  }
}

void Channel::ReadForWaiter(const std::optional<SteadyTime>& deadline) {
  StopWatching();
  reads_ = true;
  mutex_.Unlock();
  std::size_t length = 0;
  // Most answers come at once; for the others it takes a second call into the kernel.
  Receipt receipt = Receipt::kNothing;
  if (!deadline || *deadline - SteadyNow() > kBriefWait) {
    receipt = ReceivePacket(socket_.Get(), CallBuffer(), length, Patience::kBrief);
  }
  if (receipt == Receipt::kNothing && WaitReady(socket_.Get(), POLLIN, deadline)) {
    receipt = ReceivePacket(socket_.Get(), CallBuffer(), length, Patience::kNone);
  }
  mutex_.Lock();
  reads_ = false;
  Packet packet;
  if (closed_ || broken_ || TakePacket(CallBuffer(), receipt, length, packet) != Read::kPacket) {
    return;
  }
  if (packet.kind == PacketKind::kResponse) {
    Answer(packet);
  } else {
    StoreRequest(packet);
  }
}

void Channel::StopWatching() {
  if (armed_) {
    armed_ = false;
    reactor_.Disarm(socket_.Get(), MyToken());
  }
}

bool Channel::InboxIsFull() const {
  return inboxBytes_ >= kInboxLimit;
}

void Channel::StoreRequest(const Packet& packet) {
  try {
    inbox_.push_back({packet.seq, {packet.data, packet.data + packet.size}});
  } catch (const std::bad_alloc&) {
    TellNoMemory();
    return;
  }
  // The record itself counts too, or empty requests would cost nothing.
  inboxBytes_ += sizeof(StoredRequest) + packet.size;
  CallServer();
}

void Channel::CallServer() {
  if (!serving_ && !posted_) {
    posted_ = true;
    reactor_.Post(MyToken());
  }
}

void Channel::Answer(const Packet& packet) {
  const auto found = std::find_if(waiters_.begin(), waiters_.end(), [&packet](const Waiter* w) {
    return w->seq == packet.seq && !w->result;
  });
  if (found == waiters_.end()) {
    // The answer to a plain request, or one that came too late, or a replay.
    if (!std::exchange(strayTold_, true)) {
      mutex_.Unlock();
      LogWarning("NEXIO : response without a waiter dropped, fd=%d, seq=%u", handle_, packet.seq);
      mutex_.Lock();
    }
    return;
  }
  Waiter& waiter = **found;
  NexioResponse& response = *waiter.response;
  const bool fits = packet.size <= response.size && (response.data != nullptr || packet.size == 0);
  if (fits && packet.size > 0) {
    std::memcpy(response.data, packet.data, packet.size);
  }
  response.seq = packet.seq;
  response.size = packet.size;
  waiter.result = fits ? 0 : kNexioTooLong;
  changed_.NotifyAll();
}

}  // namespace ProcMgr::Nexio
