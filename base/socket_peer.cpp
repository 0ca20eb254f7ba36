#include "base/socket_peer.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace ProcMgr {
namespace {

std::vector<gid_t> SupplementaryGroups(int fd) {
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

std::optional<ucred> ReadSocketPeer(int fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::nullopt;
  }
  return peer;
}

bool IsSocketPeerInGroup(int fd, const ucred& peer, gid_t gid) {
  if (peer.gid == gid) {
    return true;
  }
  const std::vector<gid_t> groups = SupplementaryGroups(fd);
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

}  // namespace ProcMgr
