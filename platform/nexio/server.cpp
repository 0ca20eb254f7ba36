#include "platform/nexio/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "core/log.h"
#include "platform/nexio/connector.h"
#include "platform/nexio/handle_table.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// How long a client may hold a place without saying who it is.
constexpr auto kHelloLimit = std::chrono::seconds(5);

// With no descriptor left the pending connection stays, and epoll would report it without end.
constexpr auto kShortagePause = std::chrono::milliseconds(100);

constexpr int kConnectionsPerTurn = 64;

}  // namespace

Server::Server(int handle, std::string name, Claim claim, std::uint32_t maxClients,
               std::shared_ptr<const Callbacks> callbacks, NexioPeerFilter filter)
    : handle_(handle),
      name_(std::move(name)),
      callbacks_(std::move(callbacks)),
      filter_(std::move(filter)),
      claim_(std::move(claim)),
      admission_(maxClients) {}

int Server::Start() {
  const MutexLock lock(mutex_);
  return Reactor::Accepted().Watch(claim_.listener.Get(), MyToken());
}

void Server::Accept() {
  for (int left = kConnectionsPerTurn; left > 0; --left) {
    try {
      if (!AcceptOne()) {
        return;
      }
    } catch (const std::bad_alloc&) {
      LogError("NEXIO : server %s has no memory for a client", name_.c_str());
    }
  }
  const MutexLock lock(mutex_);
  if (!closed_) {
    Reactor::Accepted().Arm(claim_.listener.Get(), MyToken());
  }
}

bool Server::AcceptOne() {
  bool again = false;
  UniqueFd fd = Take(again);
  NexioPeer peer;
  if (!fd.IsOpen()) {
    return again;
  }
  if (ReadPeer(fd.Get(), peer) < 0) {
    return true;
  }
  if (filter_ && !filter_(peer)) {
    return Refuse(peer, "not one of those whom it serves");
  }
  int handle = 0;
  if (const char* const reason = Enter(fd.Get(), peer, handle); reason != nullptr) {
    return Refuse(peer, reason);
  }
  PrepareSocket(fd.Get());
  std::shared_ptr<Channel> channel;
  try {
    channel = std::make_shared<Channel>(handle, std::move(fd), peer, shared_from_this(), callbacks_,
                                        SteadyNow() + kHelloLimit);
    HandleTable::Instance().Add(handle, channel);
  } catch (const std::bad_alloc&) {
    Leave(handle);
    throw;
  }
  // A Close of this server may have looked for its connections before this one could be found. It
  // has set closed_ before that, and nothing of the channel has run yet.
  if (IsClosed() || channel->Start() < 0) {
    (void)channel->Close();
  }
  return true;
}

bool Server::IsClosed() {
  const MutexLock lock(mutex_);
  return closed_;
}

UniqueFd Server::Take(bool& again) {
  const MutexLock lock(mutex_);
  if (closed_) {
    return {};
  }
  UniqueFd fd(accept4(claim_.listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  const int error = errno;
  if (fd.IsOpen()) {
    shortageTold_ = false;
  } else if (IsShortage(error)) {
    if (!std::exchange(shortageTold_, true)) {
      LogError("NEXIO : server %s can't accept, errno=%d", name_.c_str(), error);
    }
    Reactor::Accepted().SetAlarm(MyToken(), SteadyNow() + kShortagePause);
  } else if (error == EAGAIN) {
    Reactor::Accepted().Arm(claim_.listener.Get(), MyToken());
  } else {
    again = true;  // The client has gone again, or a signal came.
  }
  return fd;
}

const char* Server::Enter(int fd, const NexioPeer& peer, int& handle) {
  const bool leavesReserve = LeavesReserve(fd);
  const auto use =
      Admission::IsTrusted(peer.uid) ? HandleTable::Use::kOwn : HandleTable::Use::kStranger;
  const MutexLock lock(mutex_);
  if (closed_) {
    return "the server is closed";
  }
  if (!leavesReserve) {
    return "the descriptors that are left are kept for others";
  }
  if (const char* const reason = admission_.Enter(peer.uid, SteadyNow()); reason != nullptr) {
    return reason;
  }
  handle = HandleTable::Instance().NewHandle(use);
  bool entered = false;
  try {
    entered = handle != 0 && clients_.emplace(handle, peer.uid).second;
  } catch (const std::bad_alloc&) {
    // As if there were no handle.
  }
  if (!entered) {
    admission_.Leave(peer.uid);
    return "there is no room for it";
  }
  return nullptr;
}

bool Server::Refuse(const NexioPeer& peer, const char* reason) {
  FloodGuard::Line line{};
  bool paused = false;
  {
    const MutexLock lock(mutex_);
    const SteadyTime now = SteadyNow();
    line = flood_.Count(now);
    paused = !closed_ && flood_.PauseEnd() > now;
    if (paused) {
      Reactor::Accepted().SetAlarm(MyToken(), flood_.PauseEnd());
    }
  }
  if (line == FloodGuard::Line::kRefusal) {
    LogWarning("NEXIO : server %s refused a client: %s, pid=%d, uid=%u, gid=%u", name_.c_str(),
               reason, peer.pid, peer.uid, peer.gid);
  } else if (line == FloodGuard::Line::kFlood) {
    LogWarning("NEXIO : server %s is flooded and tells no more refusals, pid=%d, uid=%u, gid=%u",
               name_.c_str(), peer.pid, peer.uid, peer.gid);
  }
  return !paused;
}

void Server::Leave(int handle) {
  const MutexLock lock(mutex_);
  if (const auto node = clients_.extract(handle)) {
    admission_.Leave(node.mapped());
  }
}

int Server::NextClient(int handle) {
  const MutexLock lock(mutex_);
  const auto next = clients_.upper_bound(handle);
  return next == clients_.end() ? 0 : next->first;
}

int Server::Close() {
  {
    const MutexLock lock(mutex_);
    if (!closed_) {
      closed_ = true;
      Reactor::Accepted().Forget(claim_.listener.Get(), MyToken());
      ReleaseName(name_, claim_);
    }
  }
  bool busy = false;
  for (int handle = NextClient(0); handle != 0; handle = NextClient(handle)) {
    const auto channel = HandleTable::Instance().FindChannel(handle);
    busy = (channel != nullptr && channel->Close() == kNexioCallback) || busy;
  }
  if (busy) {
    return kNexioCallback;
  }
  HandleTable::Instance().Remove(handle_);
  return 0;
}

}  // namespace ProcMgr::Nexio
