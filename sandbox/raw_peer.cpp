#include "sandbox/raw_peer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <filesystem>

#include "base/unix_address.h"
#include "sandbox/system_error.h"

namespace PmSandbox {
namespace {

constexpr const char* kFolder = "/run/nexio";

// As it lies on the wire, on a machine that is little-endian as the wire is.
struct Header {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t kind;
  std::uint32_t sequence;
  std::uint32_t size;
};
static_assert(sizeof(Header) == 16 && std::endian::native == std::endian::little);

std::string NexioSocket(const std::string& name) {
  return std::string(kFolder) + "/" + name + ".sock";
}

bool AwaitReadable(int fd, std::chrono::milliseconds patience) {
  pollfd ready{fd, POLLIN, 0};
  return poll(&ready, 1, static_cast<int>(patience.count())) == 1;
}

// The kernel takes the credentials that the other side will see at the listen, from the calling
// thread; the C library's call would change the group of the whole process.
void ListenAs(int fd, gid_t gid) {
  constexpr gid_t kKeep = static_cast<gid_t>(-1);
  CheckStep(syscall(SYS_setresgid, kKeep, gid, kKeep) == 0, "take on the group");
  const bool listening = listen(fd, SOMAXCONN) == 0;
  const int error = errno;
  CheckStep(syscall(SYS_setresgid, kKeep, getgid(), kKeep) == 0, "give back the group");
  errno = error;
  CheckStep(listening, "listen");
}

ProcMgr::UniqueFd NewSocket() {
  ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  CheckStep(fd.IsOpen(), "make a socket");
  return fd;
}

}  // namespace

RawPacket MakePacket(std::uint16_t kind, std::uint32_t sequence, std::string data) {
  const auto size = static_cast<std::uint32_t>(data.size());
  return {kPacketMagic, kPacketVersion, kind, sequence, size, std::move(data)};
}

std::string EncodePacket(const RawPacket& packet) {
  const Header header{packet.magic, packet.version, packet.kind, packet.sequence, packet.size};
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + packet.data;
}

std::optional<RawPacket> RawPeer::Receive(std::chrono::milliseconds patience) const {
  if (!AwaitReadable(socket_.Get(), patience)) {
    return std::nullopt;
  }
  std::string bytes(std::size_t{1} << 18, '\0');
  const ssize_t size = recv(socket_.Get(), bytes.data(), bytes.size(), 0);
  if (size <= 0) {
    return std::nullopt;
  }
  Header header{};
  bytes.resize(static_cast<std::size_t>(size));
  if (bytes.size() < sizeof(header)) {
    return std::nullopt;
  }
  std::memcpy(&header, bytes.data(), sizeof(header));
  return RawPacket{header.magic,    header.version, header.kind,
                   header.sequence, header.size,    bytes.substr(sizeof(header))};
}

bool RawPeer::AwaitClosed(std::chrono::milliseconds patience) const {
  std::array<char, 4096> dropped{};
  while (AwaitReadable(socket_.Get(), patience)) {
    if (recv(socket_.Get(), dropped.data(), dropped.size(), 0) <= 0) {
      return true;
    }
  }
  return false;
}

bool RawPeer::SendBytes(std::string_view bytes) const {
  return send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

RawServer::RawServer(const Sandbox& sandbox, const std::string& name, gid_t gid)
    : socket_(NewSocket()) {
  const std::string folder = sandbox.Outside(kFolder);
  if (mkdir(folder.c_str(), 0755) == 0) {
    CheckStep(chmod(folder.c_str(), 01777) == 0, "open the folder of the servers");
  }
  const std::string path = sandbox.Outside(NexioSocket(name));
  std::filesystem::remove(path);
  const ProcMgr::UnixAddress address(path);
  CheckStep(
      bind(socket_.Get(), address.Get(), address.Size()) == 0 && chmod(path.c_str(), 0666) == 0,
      "serve " + name);
  ListenAs(socket_.Get(), gid);
}

std::optional<RawPeer> RawServer::Accept(std::chrono::milliseconds patience) const {
  if (!AwaitReadable(socket_.Get(), patience)) {
    return std::nullopt;
  }
  ProcMgr::UniqueFd peer(accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  CheckStep(peer.IsOpen(), "accept");
  return RawPeer(std::move(peer));
}

std::optional<RawPeer> RawServer::AcceptGreeted(std::chrono::milliseconds patience) const {
  std::optional<RawPeer> peer = Accept(patience);
  if (peer.has_value()) {
    const std::optional<RawPacket> hello = peer->Receive(patience);
    if (!hello.has_value() || hello->kind != kHello) {
      return std::nullopt;
    }
  }
  return peer;
}

std::optional<RawPeer> ConnectRaw(const Sandbox& sandbox, const std::string& name) {
  ProcMgr::UniqueFd fd = NewSocket();
  const ProcMgr::UnixAddress address(sandbox.Outside(NexioSocket(name)));
  if (connect(fd.Get(), address.Get(), address.Size()) != 0) {
    return std::nullopt;
  }
  return RawPeer(std::move(fd));
}

std::optional<RawPeer> ConnectRawAsAnother(const Sandbox& sandbox, const std::string& name,
                                           const std::function<void(pid_t)>& before) {
  ProcMgr::UniqueFd fd = NewSocket();
  const ProcMgr::UnixAddress address(sandbox.Outside(NexioSocket(name)));
  const ProcMgr::UniqueFd go(eventfd(0, EFD_CLOEXEC));
  const pid_t child = fork();
  CheckStep(child >= 0, "fork");
  if (child == 0) {
    eventfd_t value = 0;
    _exit(eventfd_read(go.Get(), &value) == 0 &&
                  connect(fd.Get(), address.Get(), address.Size()) == 0
              ? 0
              : 1);
  }
  before(child);
  int status = -1;
  CheckStep(eventfd_write(go.Get(), 1) == 0 && waitpid(child, &status, 0) == child,
            "connect from another process");
  return status == 0 ? std::optional<RawPeer>(std::move(fd)) : std::nullopt;
}

}  // namespace PmSandbox
