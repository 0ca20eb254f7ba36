#include "platform/nexio/address.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "base/channel_name.h"
#include "base/sleep.h"
#include "core/log.h"
#include "platform/nexio/arrival_watch.h"
#include "platform/nexio/connector.h"

namespace ProcMgr::Nexio {
namespace {

constexpr mode_t kDirectoryMode = 01777;
constexpr mode_t kSocketMode = 0666;

// How many clients may wait for a server that pauses under a flood: few enough that an honest one
// among them has its turn soon.
constexpr int kBacklog = 256;

// A claim holds the lock for microseconds; whoever holds it longer isn't claiming a name.
constexpr auto kLockPatience = std::chrono::seconds(1);
constexpr std::int64_t kLockPauseNs = 1'000'000;

// The lock under which names are claimed and released, on the directory itself: it needs no file of
// its own and goes with its holder. Any user can take it and keep it, so its wait is bounded: then
// we go on without it, because a platform that doesn't boot is worse than two servers that race for
// one name.
class DirectoryLock {
 public:
  DirectoryLock() : fd_(open(kSocketDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const SteadyTime deadline = SteadyNow() + kLockPatience;
    while (fd_.IsOpen() && flock(fd_.Get(), LOCK_EX | LOCK_NB) != 0) {
      if (SteadyNow() >= deadline) {
        LogWarning("NEXIO : somebody keeps %s locked, going on without", kSocketDirectory);
        return;
      }
      SleepNs(kLockPauseNs);
    }
  }

 private:
  UniqueFd fd_;
};

// True if a process listens at `address`. Connecting is the one way to know; a server takes a
// connection that closes without a word for what it is.
bool IsServed(const sockaddr_un& address) {
  const UniqueFd probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return true;
  }
  return errno != ECONNREFUSED && errno != ENOENT;
}

// Root doesn't leave a name to somebody of another user and group: whoever may write to the
// directory could otherwise keep any server of the platform from coming up.
bool MayTakeOver(const struct stat& status) {
  return geteuid() == 0 && status.st_uid != 0 && status.st_gid != getegid();
}

// Removes a name, whatever it stands for, and follows nothing. A directory that isn't empty is
// moved out of the way, under a name that no server can have.
int RemoveEntry(const std::string& path) {
  if (unlink(path.c_str()) == 0 || (errno == EISDIR && rmdir(path.c_str()) == 0)) {
    return 0;
  }
  if (errno == ENOTEMPTY) {
    const std::string aside = std::string(kSocketDirectory) + "/." + std::to_string(gettid()) +
                              "." + std::to_string(SteadyNow().time_since_epoch().count());
    if (rename(path.c_str(), aside.c_str()) == 0) {
      return 0;
    }
  }
  return errno == ENOENT ? 0 : errno == EPERM ? -EACCES : -errno;
}

// Removes what stands at `address` unless it is a socket that somebody serves. The caller holds the
// directory's lock.
int RemoveStale(const sockaddr_un& address) {
  struct stat status {};
  if (lstat(address.sun_path, &status) != 0) {
    return errno == ENOENT ? 0 : -errno;
  }
  // A link is not asked, because connect would follow it.
  if (S_ISSOCK(status.st_mode) && IsServed(address)) {
    if (!MayTakeOver(status)) {
      return -EADDRINUSE;
    }
    LogWarning("NEXIO : %s was served by a stranger, uid=%u, gid=%u", address.sun_path,
               status.st_uid, status.st_gid);
  }
  return RemoveEntry(address.sun_path);
}

int BindReplacingStale(int fd, const sockaddr_un& address) {
  // The second and third try are for servers of other makes, which don't know our lock.
  int result = -EADDRINUSE;
  for (int tries = 0; tries < 3 && result == -EADDRINUSE; ++tries) {
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      return 0;
    }
    result = -errno;
    if (result == -EADDRINUSE) {
      if (const int removed = RemoveStale(address); removed < 0) {
        return removed;
      }
    }
  }
  return result;
}

int Listen(int fd, const sockaddr_un& address, Claim& out) {
  struct stat status {};
  if (listen(fd, kBacklog) != 0 || lstat(address.sun_path, &status) != 0) {
    return -errno;
  }
  // Last, because the change of attributes is what wakes a client that came between bind and
  // listen and was refused.
  if (chmod(address.sun_path, kSocketMode) != 0) {
    return -errno;
  }
  out.device = status.st_dev;
  out.inode = status.st_ino;
  return 0;
}

// A socket that the service's own process has made. It has one name; another user may have given it
// a second one.
bool IsOwnSocket(const struct stat& status, uid_t uid, gid_t gid) {
  return S_ISSOCK(status.st_mode) && status.st_nlink == 1 && status.st_uid == uid &&
         status.st_gid == gid;
}

// No process, and one that can't be told: it has more clients than it takes.
constexpr pid_t kNobody = -1;
constexpr pid_t kUnknown = 0;

// Asks who serves the socket that `entry` is open on with O_PATH: through the descriptor, because
// under its name there may be a link by now. The kernel tells the user and group of whoever
// listens; for kUnknown they stay in `out` as they were.
void AskWhoServes(int entry, NexioPeer& out) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(entry);
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const UniqueFd probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  out.pid = kNobody;
  if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    (void)ReadPeer(probe.Get(), out);
  } else if (errno == EAGAIN) {
    out.pid = kUnknown;
  }
}

int WaitForSocketDirectory(SteadyTime deadline) {
  int result = MakeSocketDirectory();
  if (result != -EACCES) {
    return result;
  }
  // Only root can make it. The manager does at its first channel, which it opens once this process
  // runs; so a service that is quicker waits here.
  ArrivalWatch watch("");
  while (result == -EACCES && SteadyNow() < deadline) {
    watch.Refresh();
    result = MakeSocketDirectory();
    if (result == -EACCES) {
      watch.Wait(deadline);
    }
  }
  return result;
}

}  // namespace

bool IsServerName(std::string_view name) {
  return IsChannelName(name);
}

std::string SocketFile(std::string_view name) {
  return std::string(name) + ".sock";
}

std::string SocketPath(std::string_view name) {
  return std::string(kSocketDirectory) + "/" + SocketFile(name);
}

sockaddr_un SocketAddress(std::string_view name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = SocketPath(name);
  static_assert(sizeof("/run/nexio/.sock") + kMaxChannelName <= sizeof(address.sun_path));
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int MakeSocketDirectory() {
  if (access(kSocketDirectory, F_OK) == 0) {
    return 0;
  }
  // Made under another name and moved into place, so that nobody meets it before it has its mode,
  // which mkdir would cut by the umask.
  const std::string draft = std::string(kSocketDirectory) + "." + std::to_string(gettid());
  if (mkdir(draft.c_str(), 0700) != 0 && errno != EEXIST) {
    return -errno;
  }
  int result = 0;
  if (chmod(draft.c_str(), kDirectoryMode) != 0 ||
      renameat2(AT_FDCWD, draft.c_str(), AT_FDCWD, kSocketDirectory, RENAME_NOREPLACE) != 0) {
    result = errno == EEXIST ? 0 : -errno;
    (void)rmdir(draft.c_str());
  }
  return result;
}

int ClaimName(std::string_view name, SteadyTime deadline, Claim& out) {
  if (const int result = WaitForSocketDirectory(deadline); result < 0) {
    return result;
  }
  const sockaddr_un address = SocketAddress(name);
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.IsOpen()) {
    return -errno;
  }
  const DirectoryLock lock;
  if (const int result = BindReplacingStale(fd.Get(), address); result < 0) {
    return result;
  }
  if (const int result = Listen(fd.Get(), address, out); result < 0) {
    (void)unlink(address.sun_path);
    return result;
  }
  out.listener = std::move(fd);
  return 0;
}

void ReleaseName(std::string_view name, Claim& claim) {
  const sockaddr_un address = SocketAddress(name);
  const DirectoryLock lock;
  // Removed while it is still served, so that no other server meets it stale in between.
  struct stat status {};
  if (lstat(address.sun_path, &status) == 0 && status.st_dev == claim.device &&
      status.st_ino == claim.inode) {
    (void)unlink(address.sun_path);
  }
  claim.listener.Reset();
}

int ClearName(std::string_view name, uid_t uid, gid_t gid) {
  const std::string path = SocketPath(name);
  const UniqueFd entry(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!entry.IsOpen() || fstat(entry.Get(), &status) != 0) {
    return errno == ENOENT ? 0 : -errno;
  }
  if (IsOwnSocket(status, uid, gid)) {
    return 0;
  }
  NexioPeer server{kNobody, status.st_uid, status.st_gid};
  if (S_ISSOCK(status.st_mode) && status.st_nlink == 1) {
    AskWhoServes(entry.Get(), server);
    if (server.pid != kNobody && server.gid == gid) {
      return 0;
    }
  }
  // No lock of the directory, which anybody could hold: the one that would claim the name rightly
  // isn't started yet.
  const int result = RemoveEntry(path);
  if (result == 0) {
    LogWarning("NEXIO : %s stood in a service's way and is removed, pid=%d, uid=%u, gid=%u",
               path.c_str(), server.pid, server.uid, server.gid);
  }
  return result;
}

}  // namespace ProcMgr::Nexio
