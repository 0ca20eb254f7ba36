#include "tools/local/local_client.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "tools/local/stream.h"

namespace Local {
namespace {

constexpr std::size_t kAnswerLimit = std::size_t{64} << 20;

}  // namespace

std::string Ask(const std::string& path, const std::string& request,
                std::chrono::milliseconds limit) {
  const Deadline deadline = ProcMgr::SteadyNow() + limit;
  const ProcMgr::UnixAddress address(path);
  const ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.IsOpen() || connect(fd.Get(), address.Get(), address.Size()) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  SendLine(fd.Get(), request, deadline);
  return ReceiveLine(fd.Get(), kAnswerLimit, deadline);
}

}  // namespace Local
