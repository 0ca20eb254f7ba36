#include "platform/nexio/wire_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

namespace ProcMgr::Nexio {

int SendPacket(int fd, PacketKind kind, std::uint32_t seq, const void* data, std::uint32_t size) {
  if (size > kNexioMaxData) {
    return kNexioTooLong;
  }
  if (data == nullptr && size > 0) {
    return -EINVAL;
  }
  auto header = MakeHeader(kind, seq, size);
  iovec parts[] = {{header.data(), header.size()}, {const_cast<void*>(data), size}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  while (sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    switch (errno) {
      case EINTR:
        break;
      case EAGAIN:
      case ENOBUFS:  // The kernel has no memory for it just now.
        return kNexioBusy;
      case EPIPE:
      case ECONNRESET:
      case ENOTCONN:
        return kNexioBroken;
      default:
        return -errno;
    }
  }
  return 0;
}

Receipt ReceivePacket(int fd, std::span<std::byte> buffer, std::size_t& length) {
  // A plain recv: descriptors that a peer passes along are dropped by the kernel. MSG_TRUNC makes
  // the result the packet's own length, so that a packet that was cut shows.
  ssize_t got = 0;
  do {
    got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
  } while (got < 0 && errno == EINTR);
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

}  // namespace ProcMgr::Nexio
