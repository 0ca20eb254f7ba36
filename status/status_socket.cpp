#include "status/status_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>

#include "base/socket_peer.h"
#include "base/unix_address.h"

namespace ProcMgr::Status {
namespace {

constexpr int kBacklog = 16;
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSocketMode = 0660;

std::string Fault(const char* call, int error) {
  return std::string(call) + ", errno=" + std::to_string(error);
}

UniqueFd NewSocket() {
  return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The folder is ours, whoever made it.
bool MakeFolder(const std::string& path, std::string& fault) {
  if (mkdir(path.c_str(), kFolderMode) != 0 && errno != EEXIST) {
    fault = Fault("mkdir", errno);
    return false;
  }
  const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.IsOpen() || fchown(folder.Get(), 0, 0) != 0 ||
      fchmod(folder.Get(), kFolderMode) != 0) {
    fault = Fault("folder", errno);
    return false;
  }
  return true;
}

// A socket file that a manager of the past has left behind refuses the connection.
void RemoveStale(const std::string& path, const UnixAddress& address) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0 || !S_ISSOCK(file.st_mode)) {
    return;
  }
  const UniqueFd probe = NewSocket();
  if (connect(probe.Get(), address.Get(), address.Size()) != 0 && errno == ECONNREFUSED) {
    (void)unlink(path.c_str());  // What stays is told by bind.
  }
}

}  // namespace

UniqueFd ListenAt(const std::string& folder, const std::string& path, gid_t gid,
                  std::string& fault) {
  if (!UnixAddress::Holds(path)) {
    fault = Fault("path", ENAMETOOLONG);
    return {};
  }
  const UnixAddress address(path);
  if (!MakeFolder(folder, fault)) {
    return {};
  }
  RemoveStale(path, address);
  UniqueFd fd = NewSocket();
  if (!fd.IsOpen()) {
    fault = Fault("socket", errno);
    return {};
  }
  if (bind(fd.Get(), address.Get(), address.Size()) != 0) {
    fault = Fault("bind", errno);
    return {};
  }
  // Nobody gets in before the group and the mode are right: it doesn't listen yet.
  if (lchown(path.c_str(), 0, gid) != 0 || chmod(path.c_str(), kSocketMode) != 0 ||
      listen(fd.Get(), kBacklog) != 0) {
    fault = Fault("listen", errno);
    (void)unlink(path.c_str());
    return {};
  }
  return fd;
}

bool IsPeerAllowed(int fd, gid_t gid) {
  const std::optional<ucred> peer = ReadSocketPeer(fd);
  return peer && (peer->uid == 0 || IsSocketPeerInGroup(fd, *peer, gid));
}

}  // namespace ProcMgr::Status
