// What this library offers beyond message/nexio.h: who is at the other end, and a server that
// chooses its clients. The agent library uses it; a program that is to run on another
// implementation of message/nexio.h must not.
#ifndef PLATFORM_NEXIO_NEXIO_PEER_H
#define PLATFORM_NEXIO_NEXIO_PEER_H

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "message/nexio.h"

namespace ProcMgr {

// The process at the other end, as the kernel recorded it: a client at its connect, a server at its
// listen. The process may have ended since, and its pid may have become another's.
struct NexioPeer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Tells who is at the other end of the channel `fd`. Yields 0, or kNexioBadFd with `out` untouched.
// Any thread, callbacks too.
[[nodiscard]] int NexioGetPeer(int fd, NexioPeer& out);

// Waits until a send on the channel `fd` that gave kNexioBusy is worth another try, at most
// `timeoutMs`: for a sender of many requests, which would rather wait for the peer than sleep and
// try. Yields 0, kNexioTimeout, kNexioBroken or kNexioBadFd. Any thread; a callback should not.
[[nodiscard]] int NexioAwaitRoom(int fd, std::uint32_t timeoutMs);

// Called on a thread of the library for each connection, before anything is read from it; false
// closes it with a log line. Must not let an exception out.
using NexioPeerFilter = std::function<bool(const NexioPeer& peer)>;

// NexioCreateServer, for the clients that `filter` lets in. Yields what NexioCreateServer does.
//
// NexioClosePipe closes a server of either kind with all of its connections. While a callback of
// one of them runs on another thread it yields kNexioCallback; calling again tells when it has
// ended.
[[nodiscard]] int NexioCreateFilteredServer(const NexioServerParam& param, NexioPeerFilter filter);

}  // namespace ProcMgr

#endif  // PLATFORM_NEXIO_NEXIO_PEER_H
