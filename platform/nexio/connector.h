// Getting to a server that may not be there yet.
#ifndef PLATFORM_NEXIO_CONNECTOR_H
#define PLATFORM_NEXIO_CONNECTOR_H

#include <string_view>

#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "platform/nexio/nexio_peer.h"

namespace ProcMgr::Nexio {

// Connects to the server `name`, checks that it runs under the group `gid`, and says hello as
// `ownName`. Waits for the server until `deadline` or until `cancelFd` (-1 for none) becomes
// readable, tries once in any case. Yields 0, or a negative errno as NexioOpen does. Blocks; any
// thread.
[[nodiscard]] int ConnectToServer(std::string_view name, gid_t gid, std::string_view ownName,
                                  SteadyTime deadline, int cancelFd, UniqueFd& out,
                                  NexioPeer& peer);

// Reads who is at the other end of a connected socket. Yields 0 or a negative errno.
[[nodiscard]] int ReadPeer(int fd, NexioPeer& out);

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_CONNECTOR_H
