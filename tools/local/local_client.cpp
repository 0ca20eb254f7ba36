#include "tools/local/local_client.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "base/unix_address.h"

namespace Local {
namespace {

constexpr std::size_t kAnswerLimit = std::size_t{64} << 20;

ProcMgr::UniqueFd Connect(const std::string& path, Deadline deadline) {
  const ProcMgr::UnixAddress address(path);
  ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  // Bounds the connect; zero would be no bound. Whatever follows is bounded by poll.
  const int limit = std::max(ProcMgr::MillisecondsUntil(deadline), 1);
  const timeval bound{limit / 1000, limit % 1000 * 1000L};
  if (!fd.IsOpen() || setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof(bound)) != 0 ||
      connect(fd.Get(), address.Get(), address.Size()) != 0) {
    const int error = errno == EAGAIN ? ETIMEDOUT : errno;
    throw std::system_error(error, std::generic_category(), path);
  }
  return fd;
}

}  // namespace

LineClient::LineClient(const std::string& path, Deadline deadline)
    : fd_(Connect(path, deadline)), reader_(fd_.Get(), kAnswerLimit) {}

void LineClient::Send(const std::string& line, Deadline deadline) const {
  SendLine(fd_.Get(), line, deadline);
}

std::string Ask(const std::string& path, const std::string& request,
                std::chrono::milliseconds limit) {
  const Deadline deadline = ProcMgr::SteadyNow() + limit;
  LineClient client(path, deadline);
  client.Send(request, deadline);
  return client.Receive(deadline);
}

}  // namespace Local
