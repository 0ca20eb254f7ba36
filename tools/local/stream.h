// Lines over a local stream socket, with a limit of time.
#ifndef TOOLS_LOCAL_STREAM_H
#define TOOLS_LOCAL_STREAM_H

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <string>

#include "base/steady_time.h"

namespace Local {

using Deadline = ProcMgr::SteadyTime;

class SocketAddress {
 public:
  // Throws invalid_argument if the path has more bytes than an address holds.
  explicit SocketAddress(const std::string& path);

  [[nodiscard]] const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  [[nodiscard]] socklen_t Size() const { return sizeof(address_); }

 private:
  sockaddr_un address_{};
};

// Sends `line` and a line break. Throws system_error, ETIMEDOUT once the deadline has passed.
void SendLine(int fd, const std::string& line, Deadline deadline);

// Receives until a line break, which it drops. Throws system_error: EMSGSIZE for more than `limit`
// bytes, ECONNRESET if the peer has closed before the line was whole.
std::string ReceiveLine(int fd, std::size_t limit, Deadline deadline);

}  // namespace Local

#endif  // TOOLS_LOCAL_STREAM_H
