// What this library offers beyond message/nexio.h, for programs that send more than a peer's queue
// holds. A program that is to run on another implementation of message/nexio.h must not use it.
#ifndef PLATFORM_NEXIO_NEXIO_PEER_H
#define PLATFORM_NEXIO_NEXIO_PEER_H

#include <cstdint>

#include "message/nexio.h"

namespace ProcMgr {

// Waits until a send on the channel `fd` that gave kNexioBusy is worth another try, at most
// `timeoutMs`: for a sender of many requests, which would rather wait for the peer than sleep and
// try. Yields 0, kNexioTimeout, kNexioBroken or kNexioBadFd. Any thread; a callback should not.
[[nodiscard]] int NexioAwaitRoom(int fd, std::uint32_t timeoutMs);

}  // namespace ProcMgr

#endif  // PLATFORM_NEXIO_NEXIO_PEER_H
