// One listening name and the connections that came in through it.
#ifndef PLATFORM_NEXIO_SERVER_H
#define PLATFORM_NEXIO_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "platform/nexio/address.h"
#include "platform/nexio/admission.h"
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

  // Called by the reactor: a connection has come, or a pause is over, after a flood or a shortage
  // of descriptors.
  void Accept() EXCLUDES(mutex_);
  // A connection has closed.
  void Leave(int handle) EXCLUDES(mutex_);

 private:
  [[nodiscard]] Token MyToken() const { return {TokenKind::kServer, handle_}; }
  // Takes one connection; false if there is none to take now. May run out of memory.
  bool AcceptOne() EXCLUDES(mutex_);
  // Yields the next connection, or an invalid one and whether to look again at once.
  [[nodiscard]] UniqueFd Take(bool& again) EXCLUDES(mutex_);
  // Yields null and the handle of a new client, or why it is refused, as a text for the log.
  [[nodiscard]] const char* Enter(int fd, const NexioPeer& peer, int& handle) EXCLUDES(mutex_);
  // Tells of a client that isn't let in; false if nothing is to be accepted for a while now.
  bool Refuse(const NexioPeer& peer, const char* reason) EXCLUDES(mutex_);
  [[nodiscard]] bool IsClosed() EXCLUDES(mutex_);
  // The client with the next handle after `handle`, 0 for none.
  [[nodiscard]] int NextClient(int handle) EXCLUDES(mutex_);

  // Constant.
  const int handle_;
  const std::string name_;
  const std::shared_ptr<const Callbacks> callbacks_;
  const NexioPeerFilter filter_;

  // Taken before the reactor's lock and that of the handles; no channel's lock is taken under it,
  // nor it under one.
  Mutex mutex_;
  Claim claim_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
  bool shortageTold_ GUARDED_BY(mutex_) = false;
  Admission admission_ GUARDED_BY(mutex_);
  FloodGuard flood_ GUARDED_BY(mutex_);
  std::map<int, uid_t> clients_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_SERVER_H
