// The thread that waits for a response, and the requests that it meets on the way.
#include <poll.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/log.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// What the inbox may hold before nobody reads on; the rest waits with its sender.
constexpr std::size_t kInboxLimit = std::size_t{1} << 20;

// Where a thread that waits receives. It may be one that serves, in a callback, while the request
// that it is working on still lies in its other buffer.
std::span<std::byte> CallBuffer() {
  thread_local std::unique_ptr<std::byte[]> buffer;
  return PacketBuffer(buffer);
}

}  // namespace

int Channel::Call(const NexioRequest& request, NexioResponse& response,
                  std::optional<SteadyTime> deadline) {
  const MutexLock lock(mutex_);
  if (closed_ || broken_) {
    return closed_ ? kNexioBadFd : kNexioBroken;
  }
  Waiter waiter;
  waiter.seq = static_cast<std::uint32_t>(++seqCount_);
  waiter.response = &response;
  waiters_.push_back(&waiter);
  StopWatching();
  const int sent =
      SendPacket(socket_.Get(), PacketKind::kRequest, waiter.seq, request.data, request.size);
  if (sent < 0) {
    waiter.result = sent;
  }
  AwaitResponse(waiter, deadline);
  waiters_.remove(&waiter);
  Rest();
  return *waiter.result;
}

void Channel::AwaitResponse(Waiter& waiter, const std::optional<SteadyTime>& deadline) {
  while (!waiter.result) {
    if (closed_ || broken_) {
      waiter.result = closed_ ? kNexioBadFd : kNexioBroken;
    } else if (deadline && SteadyNow() >= *deadline) {
      waiter.result = kNexioTimeout;
    } else if (!waiterReads_ && !InboxIsFull()) {
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
  waiterReads_ = true;
  mutex_.Unlock();
  std::size_t length = 0;
  Receipt receipt = Receipt::kNothing;
  if (!deadline || WaitReady(socket_.Get(), POLLIN, deadline)) {
    receipt = ReceivePacket(socket_.Get(), CallBuffer(), length,
                            deadline ? Patience::kNone : Patience::kEndless);
  }
  mutex_.Lock();
  waiterReads_ = false;
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
    Reactor::Instance().Disarm(socket_.Get(), MyToken());
  }
}

bool Channel::InboxIsFull() const {
  return inboxBytes_ >= kInboxLimit;
}

void Channel::StoreRequest(const Packet& packet) {
  inbox_.push_back({packet.seq, {packet.data, packet.data + packet.size}});
  // The record itself counts too, or empty requests would cost nothing.
  inboxBytes_ += sizeof(StoredRequest) + packet.size;
  CallServer();
}

void Channel::CallServer() {
  if (!serving_ && !posted_) {
    posted_ = true;
    Reactor::Instance().Post(MyToken());
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
