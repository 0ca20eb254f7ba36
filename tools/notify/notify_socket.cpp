#include "tools/notify/notify_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace Notify {
namespace {

// Where everybody may make a file and nobody may remove another's. The system's set-up or root, if
// it comes first, makes it.
constexpr const char* kFolder = "/run/pm-notify";

// A folder of the user's own: a command that has become another user must get through.
constexpr mode_t kOwnMode = 0711;

constexpr int kMostDatagrams = 64;

// One that is longer is dropped.
constexpr std::size_t kLongestDatagram = 8192;

void MakeCommonFolder() {
  if (mkdir(kFolder, 0700) == 0) {
    // mkdir would cut these by the umask.
    (void)chmod(kFolder, 01777);
  }
}

// For who may not make the common one. Empty if somebody else has taken its place.
std::string OwnFolder() {
  std::string folder = "/tmp/pm-notify-" + std::to_string(geteuid());
  if (mkdir(folder.c_str(), kOwnMode) == 0) {
    (void)chmod(folder.c_str(), kOwnMode);
  }
  struct stat found {};
  const bool isOurs = lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
                      found.st_uid == geteuid() && (found.st_mode & 0022) == 0;
  return isOurs ? folder : std::string();
}

// Receives one datagram; `length` is -1 if there is none. Descriptors that came with it are closed
// by the kernel, for want of room for them.
struct Received {
  ssize_t length = -1;
  bool isWhole = false;
  ucred sender{-1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
};

Received Receive(int fd, std::array<char, kLongestDatagram>& buffer) {
  iovec part{buffer.data(), buffer.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  Received received;
  received.length = recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received.length < 0) {
    return received;
  }
  received.isWhole = (message.msg_flags & MSG_TRUNC) == 0;
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_level == SOL_SOCKET &&
      header->cmsg_type == SCM_CREDENTIALS) {
    std::memcpy(&received.sender, CMSG_DATA(header), sizeof(received.sender));
  }
  return received;
}

bool Counts(const Received& received, pid_t command) {
  const ucred& sender = received.sender;
  return received.isWhole && (sender.uid == 0 || sender.uid == geteuid() || sender.pid == command);
}

}  // namespace

void ReadNotices(std::string_view datagram, Notices& notices) {
  while (!datagram.empty()) {
    const std::size_t end =
        std::min(datagram.find_first_of(std::string_view("\n\0", 2)), datagram.size());
    const std::string_view line = datagram.substr(0, end);
    datagram.remove_prefix(std::min(end + 1, datagram.size()));
    if (line == "READY=1") {
      notices.state = Notices::State::kReady;
    } else if (line == "STOPPING=1") {
      notices.state = Notices::State::kStopping;
    } else if (line == "WATCHDOG=1") {
      notices.beat = true;
    }
  }
}

NotifySocket::~NotifySocket() {
  if (!path_.empty()) {
    (void)unlink(path_.c_str());
  }
  if (!folder_.empty()) {
    (void)rmdir(folder_.c_str());
  }
}

int NotifySocket::Open(const std::string& name) {
  MakeCommonFolder();
  if (OpenIn(kFolder, name) == 0) {
    return 0;
  }
  const std::string own = OwnFolder();
  if (!own.empty() && OpenIn(own, name) == 0) {
    return 0;
  }
  // Somebody else was there first, in both.
  std::string folder = "/tmp/pm-notify-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    return errno;
  }
  folder_ = folder;
  (void)chmod(folder.c_str(), kOwnMode);
  return OpenIn(folder, name);
}

int NotifySocket::OpenIn(const std::string& folder, const std::string& name) {
  // The name is this process's, so a file of the name is what an earlier one has left behind.
  const std::string path = folder + "/" + name;
  (void)unlink(path.c_str());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return ENAMETOOLONG;
  }
  (void)path.copy(address.sun_path, path.size());
  ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  if (!fd.IsOpen() || setsockopt(fd.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return errno;
  }
  // A command may have become another user by the time it speaks.
  (void)chmod(path.c_str(), 0666);
  fd_ = std::move(fd);
  path_ = path;
  return 0;
}

Notices NotifySocket::Take(pid_t command) const {
  Notices notices;
  std::array<char, kLongestDatagram> buffer{};
  for (int i = 0; i < kMostDatagrams; ++i) {
    const Received received = Receive(fd_.Get(), buffer);
    if (received.length < 0) {
      break;
    }
    if (Counts(received, command)) {
      ReadNotices({buffer.data(), static_cast<std::size_t>(received.length)}, notices);
    }
  }
  return notices;
}

}  // namespace Notify
