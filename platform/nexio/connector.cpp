#include "platform/nexio/connector.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "base/may_wait.h"
#include "platform/nexio/address.h"
#include "platform/nexio/arrival_watch.h"
#include "platform/nexio/packet.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {
namespace {

// How long one connect may wait for room in a server's backlog before the name is looked up anew.
constexpr auto kBacklogSlice = std::chrono::milliseconds(100);

// One try. A socket of its own, because a failed one may be left half-way.
int TryConnect(const sockaddr_un& address, SteadyTime deadline, UniqueFd& out) {
  MayWait("connect");
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd.IsOpen()) {
    return -errno;
  }
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - SteadyNow());
  const auto wait =
      std::clamp<std::chrono::microseconds>(left, std::chrono::microseconds(1000), kBacklogSlice);
  timeval limit{};
  limit.tv_usec = static_cast<suseconds_t>(wait.count());
  (void)setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return -errno;
  }
  out = std::move(fd);
  return 0;
}

// What connect says about a server that isn't there, or can't be reached, for now.
bool IsAbsent(int result) {
  return result == -ENOENT || result == -ENOTDIR;
}
bool IsRefused(int result) {
  return result == -ECONNREFUSED || result == -EACCES || result == -EPROTOTYPE;
}

int Greet(int fd, gid_t gid, std::string_view ownName, NexioPeer& peer) {
  if (const int result = ReadPeer(fd, peer); result < 0) {
    return result;
  }
  if (peer.gid != gid) {
    return kNexioDenied;
  }
  PrepareSocket(fd);
  const int result = SendPacket(fd, PacketKind::kHello, 0, ownName.data(),
                                static_cast<std::uint32_t>(ownName.size()));
  // A peer that has gone again may have said something first. It must not be lost, so this is a
  // channel, one that breaks at once.
  return result == kNexioBroken ? 0 : result;
}

bool IsReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return fd >= 0 && poll(&entry, 1, 0) > 0;
}

}  // namespace

int ConnectToServer(std::string_view name, gid_t gid, std::string_view ownName, SteadyTime deadline,
                    int cancelFd, UniqueFd& out, NexioPeer& peer) {
  const sockaddr_un address = SocketAddress(name);
  // Only a server that isn't there at once is worth an inotify instance.
  std::optional<ArrivalWatch> watch;
  while (true) {
    UniqueFd fd;
    int result = TryConnect(address, deadline, fd);
    if (result == 0) {
      result = Greet(fd.Get(), gid, ownName, peer);
    }
    if (result == 0) {
      out = std::move(fd);
      return 0;
    }
    const bool again = result == -EAGAIN || result == -EINTR;
    if (result == kNexioDenied || !(again || IsAbsent(result) || IsRefused(result))) {
      return result;
    }
    if (SteadyNow() >= deadline) {
      return kNexioTimeout;
    }
    if (IsReadable(cancelFd)) {
      return kNexioBroken;
    }
    if (again) {
      continue;
    }
    if (!watch) {
      watch.emplace(SocketFile(name), cancelFd);
      watch->Refresh();
      continue;  // What came before the watch stood is found by another try.
    }
    if (IsAbsent(result)) {
      watch->Wait(deadline);
    } else {
      watch->WaitTick(deadline);
    }
    watch->Refresh();
  }
}

int ReadPeer(int fd, NexioPeer& out) {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return -errno;
  }
  out = {credentials.pid, credentials.uid, credentials.gid};
  return 0;
}

}  // namespace ProcMgr::Nexio
