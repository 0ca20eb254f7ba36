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

class LineReader {
 public:
  // `fd` is borrowed. A line of more than `limit` bytes is refused.
  LineReader(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}

  // Receives until a line break, which it drops. Throws system_error: EMSGSIZE for a longer line,
  // ECONNRESET if the peer has closed before it was whole, ETIMEDOUT once the deadline has passed;
  // what has come of the line until then counts for the next call.
  std::string Next(Deadline deadline);

 private:
  const int fd_;
  const std::size_t limit_;
  std::string in_;
  std::size_t searched_ = 0;  // So much of in_ has no line break.
};

}  // namespace Local

#endif  // TOOLS_LOCAL_STREAM_H
