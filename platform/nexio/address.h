// Where servers live in the file system: names, the directory, and claiming a name.
#ifndef PLATFORM_NEXIO_ADDRESS_H
#define PLATFORM_NEXIO_ADDRESS_H

#include <sys/types.h>
#include <sys/un.h>

#include <string>
#include <string_view>

#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr::Nexio {

inline constexpr const char* kRunDirectory = "/run";
inline constexpr const char* kSocketDirectory = "/run/nexio";

// The rule of base/channel_name.h.
[[nodiscard]] bool IsServerName(std::string_view name);

// The name of a server's socket in the directory, and its path; `name` must be a server's name.
[[nodiscard]] std::string SocketFile(std::string_view name);
[[nodiscard]] std::string SocketPath(std::string_view name);

// The same as an address for bind and connect.
[[nodiscard]] sockaddr_un SocketAddress(std::string_view name);

// Makes the socket directory (mode 1777) if it isn't there and this process may. Yields 0 if it is
// there in the end, or a negative errno.
[[nodiscard]] int MakeSocketDirectory();

// A name that this process serves: the listening socket, and which socket file is its own.
struct Claim {
  UniqueFd listener;
  dev_t device = 0;
  ino_t inode = 0;
};

// Binds and listens under `name`. A socket file that nobody serves is replaced, and so is anything
// else under that name, which is never followed; a socket that somebody serves is left alone,
// unless we are root and it belongs to another user and group. Of several processes that claim one
// name at once exactly one succeeds. A process that may not make the directory waits for it until
// `deadline`. Yields 0 or a negative errno: -EADDRINUSE if the name is served, -EACCES if what
// stands there belongs to another user.
[[nodiscard]] int ClaimName(std::string_view name, SteadyTime deadline, Claim& out);

// Stops listening, and removes the socket file if it is still the claim's own.
void ReleaseName(std::string_view name, Claim& claim);

// As NexioClearName; `name` must be a server's name.
[[nodiscard]] int ClearName(std::string_view name, uid_t uid, gid_t gid);

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_ADDRESS_H
