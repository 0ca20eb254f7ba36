#include "platform/nexio/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

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

bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Server::Server(int handle, std::string name, Claim claim, std::uint32_t maxClients,
               std::shared_ptr<const Callbacks> callbacks, NexioPeerFilter filter)
    : handle_(handle),
      name_(std::move(name)),
      maxClients_(maxClients),
      callbacks_(std::move(callbacks)),
      filter_(std::move(filter)),
      claim_(std::move(claim)) {}

int Server::Start() {
  const MutexLock lock(mutex_);
  return Reactor::Accepted().Watch(claim_.listener.Get(), MyToken());
}

void Server::Accept() {
  for (int left = kConnectionsPerTurn; left > 0; --left) {
    if (!AcceptOne()) {
      return;
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
  if (ReadPeer(fd.Get(), peer) < 0 || !LetIn(peer)) {
    return true;
  }
  const int handle = HandleTable::Instance().NewHandle();
  if (handle == 0 || !Enter(handle)) {
    return true;
  }
  PrepareSocket(fd.Get());
  const auto channel = std::make_shared<Channel>(handle, std::move(fd), peer, shared_from_this(),
                                                 callbacks_, SteadyNow() + kHelloLimit);
  HandleTable::Instance().Add(handle, channel);
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

bool Server::LetIn(const NexioPeer& peer) {
  if (filter_ && !filter_(peer)) {
    LogWarning("NEXIO : server %s refused a client, pid=%d, uid=%u, gid=%u", name_.c_str(),
               peer.pid, peer.uid, peer.gid);
    return false;
  }
  return true;
}

bool Server::Enter(int handle) {
  const MutexLock lock(mutex_);
  if (closed_) {
    return false;
  }
  if (clients_.size() >= maxClients_) {
    // One line when it gets full, not one for each of a thousand tries.
    if (!std::exchange(fullTold_, true)) {
      LogWarning("NEXIO : server %s is full, maxClients=%u", name_.c_str(), maxClients_);
    }
    return false;
  }
  clients_.insert(handle);
  return true;
}

void Server::Leave(int handle) {
  const MutexLock lock(mutex_);
  clients_.erase(handle);
  fullTold_ = false;
}

int Server::Close() {
  std::vector<int> clients;
  {
    const MutexLock lock(mutex_);
    if (!closed_) {
      closed_ = true;
      Reactor::Accepted().Forget(claim_.listener.Get(), MyToken());
      ReleaseName(name_, claim_);
    }
    clients.assign(clients_.begin(), clients_.end());
  }
  bool busy = false;
  for (const int handle : clients) {
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
