#include "platform/nexio/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "core/log.h"
#include "core/sleep.h"
#include "platform/nexio/handle_table.h"
#include "platform/nexio/server.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// After so many packets the thread goes back to the reactor, so that a channel that never falls
// silent can't keep it from the others.
constexpr int kPacketsPerTurn = 64;

// A channel that is served again so soon carries a stream.
constexpr auto kStreamGap = std::chrono::microseconds(50);

// How long to let packets of a stream gather.
constexpr std::int64_t kNapNs = 20'000;

// What the inbox may hold before nobody reads on; the rest waits with its sender.
constexpr std::size_t kInboxLimit = std::size_t{1} << 20;

constexpr int kMaxReadErrors = 3;

// Where a thread receives. A thread that serves may, in a callback, wait for a response, while the
// request that it is working on still lies in the buffer: so there are two.
std::span<std::byte> ThreadBuffer(std::unique_ptr<std::byte[]>& buffer) {
  if (buffer == nullptr) {
    buffer = std::make_unique_for_overwrite<std::byte[]>(kMaxPacket);
  }
  return {buffer.get(), kMaxPacket};
}
std::span<std::byte> ServeBuffer() {
  thread_local std::unique_ptr<std::byte[]> buffer;
  return ThreadBuffer(buffer);
}
std::span<std::byte> CallBuffer() {
  thread_local std::unique_ptr<std::byte[]> buffer;
  return ThreadBuffer(buffer);
}

// Waits until `fd` is ready for `events` or has hung up; false if neither by `deadline`.
bool WaitReady(int fd, short events, const std::optional<SteadyTime>& deadline) {
  int wait = -1;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyNow());
    wait = static_cast<int>(
        std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
  }
  pollfd entry{fd, events, 0};
  return poll(&entry, 1, wait) > 0;
}

}  // namespace

Channel::Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::string peerName,
                 std::shared_ptr<const Callbacks> callbacks)
    : handle_(handle),
      socket_(std::move(socket)),
      peer_(peer),
      callbacks_(std::move(callbacks)),
      peerName_(std::move(peerName)) {}

Channel::Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::shared_ptr<Server> server,
                 std::shared_ptr<const Callbacks> callbacks, SteadyTime helloDeadline)
    : handle_(handle),
      socket_(std::move(socket)),
      peer_(peer),
      server_(std::move(server)),
      callbacks_(std::move(callbacks)),
      helloDeadline_(helloDeadline),
      awaitsHello_(true) {}

int Channel::Start() {
  const MutexLock lock(mutex_);
  if (closed_) {
    return 0;
  }
  if (awaitsHello_) {
    Reactor::Instance().SetAlarm(MyToken(), helloDeadline_);
  }
  armed_ = true;
  return Reactor::Instance().Watch(socket_.Get(), MyToken());
}

int Channel::SendRequest(const NexioRequest& request) {
  if (broken_.load(std::memory_order_relaxed)) {
    return kNexioBroken;
  }
  hasSent_.store(true, std::memory_order_relaxed);
  const auto seq = static_cast<std::uint32_t>(++seqCount_);
  const int result =
      SendPacket(socket_.Get(), PacketKind::kRequest, seq, request.data, request.size);
  return closed_.load(std::memory_order_relaxed) ? kNexioBadFd : result;
}

int Channel::SendResponse(const NexioResponse& response) {
  if (broken_.load(std::memory_order_relaxed)) {
    return kNexioBroken;
  }
  hasSent_.store(true, std::memory_order_relaxed);
  const int result =
      SendPacket(socket_.Get(), PacketKind::kResponse, response.seq, response.data, response.size);
  return closed_.load(std::memory_order_relaxed) ? kNexioBadFd : result;
}

int Channel::AwaitRoom(SteadyTime deadline) {
  while (!closed_ && !broken_) {
    if (WaitReady(socket_.Get(), POLLOUT, deadline)) {
      return closed_ ? kNexioBadFd : 0;
    }
    if (SteadyNow() >= deadline) {
      return kNexioTimeout;
    }
  }
  return closed_ ? kNexioBadFd : kNexioBroken;
}

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

void Channel::Serve() {
  bool detach = false;
  bool late = false;
  {
    const MutexLock lock(mutex_);
    if (serving_ || closed_) {
      return;
    }
    armed_ = false;
    posted_ = false;
    serving_ = true;
    hasSent_ = false;
    napped_ = false;
    inStream_ = SteadyNow() - lastTurn_ < kStreamGap;
    for (int left = kPacketsPerTurn; left > 0 && ServeOne(); --left) {
    }
    serving_ = false;
    lastTurn_ = SteadyNow();
    Rest();
    detach = std::exchange(detachDue_, false);
    late = closeWanted_;
  }
  if (detach) {
    Detach(late);
  }
}

bool Channel::ServeOne() {
  if (closed_) {
    return false;
  }
  if (!inbox_.empty()) {
    const StoredRequest stored = std::move(inbox_.front());
    inbox_.pop_front();
    inboxBytes_ -= sizeof(StoredRequest) + stored.data.size();
    changed_.NotifyAll();
    const NexioRequest request{stored.seq, stored.data.data(),
                               static_cast<std::uint32_t>(stored.data.size())};
    DeliverRequest(&request);
    return true;
  }
  if (broken_) {
    if (!endTold_) {
      DeliverEnd();
    }
    return false;
  }
  if (waiterReads_) {
    return false;
  }
  Packet packet;
  const Read read = ReadPacket(ServeBuffer(), packet);
  if (read == Read::kNothing) {
    return NapInStream();
  }
  if (read == Read::kBroken) {
    return true;
  }
  napped_ = false;
  if (packet.kind == PacketKind::kResponse) {
    Answer(packet);
  } else if (packet.kind == PacketKind::kHello) {
    DeliverHello(packet);
  } else {
    const NexioRequest request{packet.seq, packet.data, packet.size};
    DeliverRequest(&request);
  }
  return true;
}

bool Channel::NapInStream() {
  if (!inStream_ || napped_ || hasSent_) {
    return false;
  }
  mutex_.Unlock();
  SleepNs(kNapNs);
  mutex_.Lock();
  napped_ = true;
  return true;
}

Channel::Read Channel::ReadPacket(std::span<std::byte> buffer, Packet& out) {
  std::size_t length = 0;
  const Receipt receipt = ReceivePacket(socket_.Get(), buffer, length, Patience::kNone);
  return TakePacket(buffer, receipt, length, out);
}

Channel::Read Channel::TakePacket(std::span<std::byte> buffer, Receipt receipt, std::size_t length,
                                  Packet& out) {
  while (receipt == Receipt::kError && ++readErrors_ <= kMaxReadErrors) {
    // A reset stands in front of the packets that came before it: read on.
    receipt = ReceivePacket(socket_.Get(), buffer, length, Patience::kNone);
  }
  if (receipt == Receipt::kNothing && readErrors_ == 0) {
    return Read::kNothing;
  }
  if (receipt != Receipt::kPacket) {
    Break(nullptr);
    return Read::kBroken;
  }
  const char* fault =
      length > buffer.size() ? "packet too long" : ParsePacket(buffer.first(length), out);
  if (fault == nullptr) {
    fault = FindFault(out);
  }
  if (fault != nullptr) {
    Break(fault);
    return Read::kBroken;
  }
  return Read::kPacket;
}

const char* Channel::FindFault(const Packet& packet) const {
  if (awaitsHello_) {
    const std::string_view name(reinterpret_cast<const char*>(packet.data), packet.size);
    return packet.kind != PacketKind::kHello ? "no hello"
           : IsClientName(name)              ? nullptr
                                             : "hello without a proper name";
  }
  if (packet.kind == PacketKind::kHello) {
    return "unexpected hello";
  }
  if (packet.kind == PacketKind::kResponse) {
    const std::uint64_t count = seqCount_.load();
    const bool given = count > std::numeric_limits<std::uint32_t>::max() ||
                       (packet.seq >= 1 && packet.seq <= count);
    return given ? nullptr : "response to a request that was never sent";
  }
  return nullptr;
}

void Channel::Break(const char* fault) {
  broken_ = true;
  fault_ = fault;
  if (fault != nullptr) {
    // The peer is to hear of it now and not when the owner closes.
    (void)shutdown(socket_.Get(), SHUT_RDWR);
  }
  changed_.NotifyAll();
}

template <typename Callback>
void Channel::RunCallback(const Callback& callback) {
  inCallback_ = true;
  callbackThread_ = std::this_thread::get_id();
  mutex_.Unlock();
  callback();
  mutex_.Lock();
  inCallback_ = false;
  if (closeWanted_ && !closed_) {
    Shut();
    detachDue_ = true;
  }
}

void Channel::DeliverHello(const Packet& packet) {
  awaitsHello_ = false;
  Reactor::Instance().CancelAlarm(MyToken(), helloDeadline_);
  peerName_.assign(reinterpret_cast<const char*>(packet.data), packet.size);
  if (callbacks_->onConnect) {
    // The name doesn't change any more, so the callback may read it without the lock.
    const char* const name = peerName_.c_str();
    RunCallback([this, name, size = packet.size] { callbacks_->onConnect(handle_, name, size); });
  }
}

void Channel::DeliverRequest(const NexioRequest* request) {
  if (callbacks_->onRequest) {
    RunCallback([this, request] { callbacks_->onRequest(handle_, request); });
  }
}

void Channel::DeliverEnd() {
  endTold_ = true;
  if (fault_ != nullptr) {
    const char* const fault = fault_;
    const std::string name = peerName_;
    mutex_.Unlock();
    LogWarning("NEXIO : connection closed: %s, fd=%d, peer=%s, pid=%d", fault, handle_,
               name.c_str(), peer_.pid);
    mutex_.Lock();
  }
  if (closed_) {
    return;
  }
  if (awaitsHello_) {
    Shut();
    detachDue_ = true;
  } else {
    DeliverRequest(nullptr);
  }
}

void Channel::HelloIsDue() {
  const MutexLock lock(mutex_);
  if (awaitsHello_ && !closed_ && !broken_) {
    Break("no hello in time");
    Rest();
  }
}

int Channel::Close() {
  bool late = false;
  {
    const MutexLock lock(mutex_);
    if (closed_) {
      if (!std::exchange(closeWanted_, false)) {
        return kNexioBadFd;
      }
    } else if (inCallback_ && callbackThread_ != std::this_thread::get_id()) {
      closeWanted_ = true;
      return kNexioCallback;
    } else {
      late = closeWanted_;
      Shut();
    }
  }
  Detach(late);
  return 0;
}

void Channel::Rest() {
  if (closed_ || serving_ || waiterReads_) {
    return;
  }
  if (!inbox_.empty() || (broken_ && !endTold_)) {
    CallServer();
  } else if (broken_) {
    return;
  } else if (!waiters_.empty()) {
    // One of them reads on, and comes here when it has its answer.
    changed_.NotifyAll();
  } else if (!armed_) {
    armed_ = true;
    Reactor::Instance().Arm(socket_.Get(), MyToken());
  }
}

void Channel::Shut() {
  closed_ = true;
  if (awaitsHello_) {
    Reactor::Instance().CancelAlarm(MyToken(), helloDeadline_);
  }
  Reactor::Instance().Forget(socket_.Get());
  // The peer hears of it at once, though a sender may hold the socket for a moment still.
  (void)shutdown(socket_.Get(), SHUT_RDWR);
  inbox_.clear();
  inboxBytes_ = 0;
  changed_.NotifyAll();
}

void Channel::Detach(bool late) {
  if (late) {
    HandleTable::Instance().RemoveLate(handle_);
  } else {
    HandleTable::Instance().Remove(handle_);
  }
  if (server_ != nullptr) {
    server_->Leave(handle_);
  }
}

}  // namespace ProcMgr::Nexio
