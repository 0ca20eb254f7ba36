// The other side of LocalServer, and of the manager's status service.
#ifndef TOOLS_LOCAL_LOCAL_CLIENT_H
#define TOOLS_LOCAL_LOCAL_CLIENT_H

#include <chrono>
#include <string>

#include "base/unique_fd.h"
#include "tools/local/stream.h"

namespace Local {

inline constexpr const char* kOperatorSocket = "/run/pm/operator/socket";

// A connection over which lines go both ways. Throws system_error, with the errno of the step that
// failed: ENOENT or ECONNREFUSED if nobody serves the path, EACCES if this user may not ask,
// ETIMEDOUT.
class LineClient {
 public:
  // A service that takes no more connections, as a stopped one with many that wait, is waited for
  // until the deadline.
  LineClient(const std::string& path, Deadline deadline);

  void Send(const std::string& line, Deadline deadline) const;
  std::string Receive(Deadline deadline) { return reader_.Next(deadline); }

 private:
  const ProcMgr::UniqueFd fd_;
  LineReader reader_;
};

// Sends the line `request` to the service at `path` and yields the line of its answer. Waits at
// most `limit` for it. Throws as LineClient does.
std::string Ask(const std::string& path, const std::string& request,
                std::chrono::milliseconds limit);

}  // namespace Local

#endif  // TOOLS_LOCAL_LOCAL_CLIENT_H
