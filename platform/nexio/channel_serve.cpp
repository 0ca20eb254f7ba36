// What a thread of the reactor does with a connection on which something has come.
#include <sys/socket.h>

#include <chrono>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "base/sleep.h"
#include "core/log.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// After so long the thread goes back to the reactor, once the callback has returned, so that a
// channel that never falls silent can't keep it from the others. Time, not packets, because a
// callback may be slow.
constexpr auto kSlice = std::chrono::milliseconds(2);

// A channel that is served again so soon carries a stream.
constexpr auto kStreamGap = std::chrono::microseconds(50);

// How long to let packets of a stream gather.
constexpr std::int64_t kNapNs = 20'000;

// A channel that is served again so soon after an answer carries questions in a row.
constexpr auto kRowGap = std::chrono::microseconds(200);

constexpr int kMaxReadErrors = 3;

}  // namespace

void Channel::Serve(std::span<std::byte> buffer) {
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
    const SteadyTime begin = SteadyNow();
    inStream_ = begin - lastTurn_ < kStreamGap;
    inRow_ = begin - lastTurn_ < kRowGap;
    while (ServeOne(buffer) && SteadyNow() - begin < kSlice) {
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

bool Channel::ServeOne(std::span<std::byte> buffer) {
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
  if (reads_) {
    return false;
  }
  Packet packet;
  const Read read = ReadPacket(buffer, packet);
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
  if (!inStream_ || napped_) {
    return false;
  }
  mutex_.Unlock();
  SleepNs(kNapNs);
  mutex_.Lock();
  napped_ = true;
  return true;
}

Channel::Read Channel::ReadPacket(std::span<std::byte> buffer, Packet& out) {
  if (hasSent_.exchange(false, std::memory_order_relaxed) && inRow_ && reactor_.BeginLinger()) {
    return LingerForPacket(buffer, out);
  }
  std::size_t length = 0;
  const Receipt receipt = ReceivePacket(socket_.Get(), buffer, length, Patience::kNone);
  return TakePacket(buffer, receipt, length, out);
}

Channel::Read Channel::LingerForPacket(std::span<std::byte> buffer, Packet& out) {
  reads_ = true;
  mutex_.Unlock();
  std::size_t length = 0;
  const Receipt receipt = ReceivePacket(socket_.Get(), buffer, length, Patience::kBrief);
  reactor_.EndLinger();
  mutex_.Lock();
  reads_ = false;
  napped_ = true;
  if (!waiters_.empty()) {
    // Somebody has begun to wait for a response, and couldn't read.
    changed_.NotifyAll();
  }
  return closed_ || broken_ ? Read::kNothing : TakePacket(buffer, receipt, length, out);
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
  bool noMemory = false;
  try {
    callback();
  } catch (const std::bad_alloc&) {
    noMemory = true;
  }
  mutex_.Lock();
  inCallback_ = false;
  if (noMemory) {
    TellNoMemory();
  }
  if (closeWanted_ && !closed_) {
    Shut();
    detachDue_ = true;
  }
}

void Channel::DeliverHello(const Packet& packet) {
  awaitsHello_ = false;
  reactor_.CancelAlarm(MyToken());
  // Into memory that was taken with the connection.
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
    TellFault();
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

void Channel::TellNoMemory() {
  mutex_.Unlock();
  LogError("NEXIO : no memory, a packet is lost, fd=%d", handle_);
  mutex_.Lock();
}

void Channel::TellFault() {
  const char* const fault = fault_;
  // Like the fault, the name doesn't change any more.
  const char* const name = peerName_.c_str();
  mutex_.Unlock();
  LogWarning("NEXIO : connection closed: %s, fd=%d, peer=%s, pid=%d", fault, handle_, name,
             peer_.pid);
  mutex_.Lock();
}

void Channel::AlarmIsDue() {
  const MutexLock lock(mutex_);
  watchDelayed_ = false;
  if (awaitsHello_ && !closed_ && !broken_) {
    Break("no hello in time");
  }
  Rest();
}

}  // namespace ProcMgr::Nexio
