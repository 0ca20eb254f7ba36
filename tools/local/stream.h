// Lines over a local stream socket, with a limit of time.
#ifndef TOOLS_LOCAL_STREAM_H
#define TOOLS_LOCAL_STREAM_H

#include <chrono>
#include <string>

#include "base/steady_time.h"

namespace Local {

using Deadline = ProcMgr::SteadyTime;

// Sends `line` and a line break. Throws system_error, ETIMEDOUT once the deadline has passed.
void SendLine(int fd, const std::string& line, Deadline deadline);

// Receives until a line break, which it drops. Throws system_error: EMSGSIZE for more than `limit`
// bytes, ECONNRESET if the peer has closed before the line was whole.
std::string ReceiveLine(int fd, std::size_t limit, Deadline deadline);

}  // namespace Local

#endif  // TOOLS_LOCAL_STREAM_H
