#include "platform/nexio/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "platform/nexio/handle_table.h"
#include "platform/nexio/server.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {

Channel::Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::string peerName,
                 std::shared_ptr<const Callbacks> callbacks)
    : handle_(handle),
      socket_(std::move(socket)),
      peer_(peer),
      reactor_(Reactor::Opened()),
      callbacks_(std::move(callbacks)),
      peerName_(std::move(peerName)) {}

Channel::Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::shared_ptr<Server> server,
                 std::shared_ptr<const Callbacks> callbacks, SteadyTime helloDeadline)
    : handle_(handle),
      socket_(std::move(socket)),
      peer_(peer),
      reactor_(Reactor::Accepted()),
      server_(std::move(server)),
      callbacks_(std::move(callbacks)),
      helloDeadline_(helloDeadline),
      awaitsHello_(true) {
  peerName_.reserve(kMaxClientName);
}

int Channel::Start() {
  const MutexLock lock(mutex_);
  if (closed_) {
    return 0;
  }
  armed_ = true;
  const int result = reactor_.Watch(socket_.Get(), MyToken());
  if (result == 0 && awaitsHello_) {
    reactor_.SetAlarm(MyToken(), helloDeadline_);
  }
  return result;
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
  if (closed_ || serving_ || reads_) {
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
    reactor_.Arm(socket_.Get(), MyToken());
  }
}

void Channel::Shut() {
  closed_ = true;
  reactor_.Forget(socket_.Get(), MyToken());
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
