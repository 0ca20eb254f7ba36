// The socket at which the status is asked for.
#ifndef STATUS_STATUS_SOCKET_H
#define STATUS_STATUS_SOCKET_H

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

namespace ProcMgr::Status {

// Makes `folder` (0755, root's) and in it the socket file `path`, mode 0660 with the group `gid`,
// and listens there. A socket file at which nobody listens is replaced; one at which somebody does,
// and whatever else stands there, stays. Yields no descriptor on failure, and in `fault` what could
// not be done.
[[nodiscard]] UniqueFd ListenAt(const std::string& folder, const std::string& path, gid_t gid,
                                std::string& fault);

// Whether the peer is root, or has `gid` for its own group or among its supplementary ones.
[[nodiscard]] bool IsPeerAllowed(int fd, gid_t gid);

}  // namespace ProcMgr::Status

#endif  // STATUS_STATUS_SOCKET_H
