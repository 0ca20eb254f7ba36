// The other side of LocalServer.
#ifndef TOOLS_LOCAL_LOCAL_CLIENT_H
#define TOOLS_LOCAL_LOCAL_CLIENT_H

#include <chrono>
#include <string>

namespace Local {

inline constexpr const char* kIammgrSocket = "/run/pm/iammgr/socket";
inline constexpr const char* kOperatorSocket = "/run/pm/operator/socket";

// Sends the line `request` to the service at `path` and yields the line of its answer. Waits at
// most `limit` for it. Throws system_error, with the errno of the step that failed: ENOENT or
// ECONNREFUSED if nobody serves the path, EACCES if this user may not ask, ETIMEDOUT.
std::string Ask(const std::string& path, const std::string& request,
                std::chrono::milliseconds limit);

}  // namespace Local

#endif  // TOOLS_LOCAL_LOCAL_CLIENT_H
