#include "platform/nexio/wire_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/may_wait.h"
#include "base/sleep.h"

namespace ProcMgr::Nexio {

namespace {

// Packets up to this size, the manager's frames among them, are put together on the stack: for them
// the copy costs less than what the kernel does to gather two parts.
constexpr std::size_t kSmallPacket = 4096;

ssize_t SendSmall(int fd, const std::array<std::byte, kHeaderSize>& header, const void* data,
                  std::uint32_t size) {
  std::byte packet[kSmallPacket];
  std::memcpy(packet, header.data(), kHeaderSize);
  if (size > 0) {
    std::memcpy(packet + kHeaderSize, data, size);
  }
  return send(fd, packet, kHeaderSize + size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

ssize_t SendParts(int fd, std::array<std::byte, kHeaderSize>& header, const void* data,
                  std::uint32_t size) {
  iovec parts[] = {{header.data(), kHeaderSize}, {const_cast<void*>(data), size}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

int ResultOf(int error) {
  switch (error) {
    case EAGAIN:
    case ENOBUFS:  // The kernel has no memory for it just now.
      return kNexioBusy;
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
      return kNexioBroken;
    default:
      return -error;
  }
}

}  // namespace

int SendPacket(int fd, PacketKind kind, std::uint32_t seq, const void* data, std::uint32_t size) {
  if (size > kNexioMaxData) {
    return kNexioTooLong;
  }
  if (data == nullptr && size > 0) {
    return -EINVAL;
  }
  auto header = MakeHeader(kind, seq, size);
  ssize_t sent = 0;
  do {
    sent = size <= kSmallPacket - kHeaderSize ? SendSmall(fd, header, data, size)
                                              : SendParts(fd, header, data, size);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? ResultOf(errno) : 0;
}

void PrepareSocket(int fd) {
  // The kernel counts its own overhead too, up to twice the data, and cuts the wish to its limit.
  constexpr int kWish = 1 << 20;
  (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kWish, sizeof(kWish));
  // One tick of the kernel, or two.
  constexpr timeval kBrief{0, 1000};
  (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kBrief, sizeof(kBrief));
}

Receipt ReceivePacket(int fd, std::span<std::byte> buffer, std::size_t& length, Patience patience) {
  const int flags = MSG_TRUNC | (patience == Patience::kNone ? MSG_DONTWAIT : 0);
  // A plain recv: descriptors that a peer passes along are dropped by the kernel. MSG_TRUNC makes
  // the result the packet's own length, so that a packet that was cut shows.
  ssize_t got = 0;
  do {
    got = recv(fd, buffer.data(), buffer.size(), flags);
  } while (got < 0 && errno == EINTR);
  if (got < 0 && IsShortage(errno)) {
    // What is there to be read stays there, and whoever watches the socket is told of it again:
    // with a pause, so that a shortage doesn't cost the processor, too.
    constexpr std::int64_t kPauseNs = 1'000'000;
    SleepNs(kPauseNs);
    return Receipt::kNothing;
  }
  if (got < 0) {
    return errno == EAGAIN ? Receipt::kNothing : Receipt::kError;
  }
  length = static_cast<std::size_t>(got);
  if (got == 0) {
    // The end of the connection and an empty packet look alike but for the hang-up.
    pollfd state{fd, POLLRDHUP, 0};
    if (poll(&state, 1, 0) != 0) {
      return Receipt::kEnd;
    }
  }
  return Receipt::kPacket;
}

bool WaitReady(int fd, short events, const std::optional<SteadyTime>& deadline) {
  MayWait("poll");
  pollfd entry{fd, events, 0};
  return poll(&entry, 1, deadline ? MillisecondsUntil(*deadline) : -1) > 0;
}

}  // namespace ProcMgr::Nexio
