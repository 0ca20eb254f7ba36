#include "status/status_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

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

bool FillAddress(const std::string& path, sockaddr_un& address) {
  if (path.size() >= sizeof(address.sun_path)) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), static_cast<char*>(address.sun_path));
  return true;
}

const sockaddr* Generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
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
void RemoveStale(const std::string& path, const sockaddr_un& address) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0 || !S_ISSOCK(file.st_mode)) {
    return;
  }
  const UniqueFd probe = NewSocket();
  if (connect(probe.Get(), Generic(address), sizeof(address)) != 0 && errno == ECONNREFUSED) {
    (void)unlink(path.c_str());  // What stays is told by bind.
  }
}

// The supplementary groups of the peer at the moment of its connect; none if the kernel, which must
// be 4.13 or newer, doesn't tell.
std::vector<gid_t> PeerGroups(int fd) {
  std::vector<gid_t> groups;
  socklen_t size = 0;
  while (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
    if (errno != ERANGE) {
      return {};
    }
    groups.resize(size / sizeof(gid_t));
  }
  groups.resize(size / sizeof(gid_t));
  return groups;
}

}  // namespace

UniqueFd ListenAt(const std::string& folder, const std::string& path, gid_t gid,
                  std::string& fault) {
  sockaddr_un address{};
  if (!FillAddress(path, address)) {
    fault = Fault("path", ENAMETOOLONG);
    return {};
  }
  if (!MakeFolder(folder, fault)) {
    return {};
  }
  RemoveStale(path, address);
  UniqueFd fd = NewSocket();
  if (!fd.IsOpen()) {
    fault = Fault("socket", errno);
    return {};
  }
  if (bind(fd.Get(), Generic(address), sizeof(address)) != 0) {
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
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return false;
  }
  if (peer.uid == 0 || peer.gid == gid) {
    return true;
  }
  const std::vector<gid_t> groups = PeerGroups(fd);
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

}  // namespace ProcMgr::Status
