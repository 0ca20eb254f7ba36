#include "tools/local/stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace Local {
namespace {

[[noreturn]] void Fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

void Await(int fd, short event, Deadline deadline, const char* what) {
  while (true) {
    const int limit = ProcMgr::MillisecondsUntil(deadline);
    if (limit == 0) {
      Fail(ETIMEDOUT, what);
    }
    pollfd entry{fd, event, 0};
    const int ready = poll(&entry, 1, limit);
    if (ready > 0) {
      return;
    }
    if (ready < 0 && errno != EINTR) {
      Fail(errno, what);
    }
  }
}

}  // namespace

void SendLine(int fd, const std::string& line, Deadline deadline) {
  const std::string bytes = line + '\n';
  for (std::size_t sent = 0; sent < bytes.size();) {
    Await(fd, POLLOUT, deadline, "send");
    const ssize_t n =
        send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      sent += static_cast<std::size_t>(n);
    } else if (errno != EAGAIN && errno != EINTR) {
      Fail(errno, "send");
    }
  }
}

std::string LineReader::Next(Deadline deadline) {
  while (true) {
    const std::size_t end = in_.find('\n', searched_);
    if (end != std::string::npos && end <= limit_) {
      std::string line = in_.substr(0, end);
      in_.erase(0, end + 1);
      searched_ = 0;
      return line;
    }
    searched_ = in_.size();
    if (in_.size() > limit_) {
      Fail(EMSGSIZE, "receive");
    }
    Await(fd_, POLLIN, deadline, "receive");
    std::array<char, 65536> block{};
    const ssize_t n = recv(fd_, block.data(), block.size(), MSG_DONTWAIT);
    if (n == 0) {
      Fail(ECONNRESET, "receive");
    }
    if (n > 0) {
      in_.append(block.data(), static_cast<std::size_t>(n));
    } else if (errno != EAGAIN && errno != EINTR) {
      Fail(errno, "receive");
    }
  }
}

}  // namespace Local
