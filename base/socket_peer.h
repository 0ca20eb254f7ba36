// Who is at the other end of a local connection, as the kernel says.
#ifndef BASE_SOCKET_PEER_H
#define BASE_SOCKET_PEER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

namespace ProcMgr {

// The peer's process, user and group at its connect. None if the kernel doesn't tell.
[[nodiscard]] std::optional<ucred> ReadSocketPeer(int fd);

// Whether `gid` is the group of `peer`, which ReadSocketPeer yielded for `fd`, or among its
// supplementary ones; of those only kernels from 4.13 on tell.
[[nodiscard]] bool IsSocketPeerInGroup(int fd, const ucred& peer, gid_t gid);

}  // namespace ProcMgr

#endif  // BASE_SOCKET_PEER_H
