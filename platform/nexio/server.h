// One listening name and the connections that came in through it.
#ifndef PLATFORM_NEXIO_SERVER_H
#define PLATFORM_NEXIO_SERVER_H

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "base/mutex.h"
#include "platform/nexio/address.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/nexio_peer.h"
#include "platform/nexio/reactor.h"

namespace ProcMgr::Nexio {

class Server : public std::enable_shared_from_this<Server> {
 public:
  Server(int handle, std::string name, Claim claim, std::uint32_t maxClients,
         std::shared_ptr<const Callbacks> callbacks, NexioPeerFilter filter);

  // Begins to accept. Yields 0 or a negative errno.
  [[nodiscard]] int Start() EXCLUDES(mutex_);
  // As NexioClosePipe.
  [[nodiscard]] int Close() EXCLUDES(mutex_);

  // Called by the reactor: a connection has come, or a pause after a shortage of descriptors is
  // over.
  void Accept() EXCLUDES(mutex_);
  // A connection has closed.
  void Leave(int handle) EXCLUDES(mutex_);

 private:
  [[nodiscard]] Token MyToken() const { return {TokenKind::kServer, handle_}; }
  // Takes one connection; false if there is none to take now.
  bool AcceptOne() EXCLUDES(mutex_);
  // Yields the next connection, or an invalid one and whether to look again at once.
  [[nodiscard]] UniqueFd Take(bool& again) EXCLUDES(mutex_);
  [[nodiscard]] bool LetIn(const NexioPeer& peer) EXCLUDES(mutex_);
  [[nodiscard]] bool IsClosed() EXCLUDES(mutex_);
  [[nodiscard]] bool Enter(int handle) EXCLUDES(mutex_);

  // Constant.
  const int handle_;
  const std::string name_;
  const std::uint32_t maxClients_;
  const std::shared_ptr<const Callbacks> callbacks_;
  const NexioPeerFilter filter_;

  // Taken before the reactor's lock; no channel's lock is taken under it, nor it under one.
  Mutex mutex_;
  Claim claim_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
  bool shortageTold_ GUARDED_BY(mutex_) = false;
  bool fullTold_ GUARDED_BY(mutex_) = false;
  std::set<int> clients_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_SERVER_H
