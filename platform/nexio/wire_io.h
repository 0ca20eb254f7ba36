// One packet to a socket, one packet from it.
#ifndef PLATFORM_NEXIO_WIRE_IO_H
#define PLATFORM_NEXIO_WIRE_IO_H

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/steady_time.h"
#include "platform/nexio/packet.h"

namespace ProcMgr::Nexio {

// Whether this errno tells of a lack of memory or descriptors, which may pass.
[[nodiscard]] inline bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Never blocks. Yields 0, kNexioBusy, kNexioTooLong, kNexioBroken, or another negative errno. Any
// thread; packets of several threads don't mix.
[[nodiscard]] int SendPacket(int fd, PacketKind kind, std::uint32_t seq, const void* data,
                             std::uint32_t size);

enum class Receipt {
  kPacket,  // `length` bytes have come; more than the buffer holds if the packet was cut.
  kNothing,
  kEnd,    // The peer has closed, or the socket is broken.
  kError,  // The peer has gone without reading everything. What it had sent is still to be read.
};

enum class Patience { kNone, kBrief };

// What Patience::kBrief may come to, with what the kernel adds to the socket's limit. The kernel's
// timer for it costs nothing while packets come, unlike that of poll.
inline constexpr auto kBriefWait = std::chrono::milliseconds(20);

// Prepares a connected socket: its send queue holds a few packets of the greatest size, and a brief
// wait on it ends.
void PrepareSocket(int fd);

// With Patience::kBrief it waits a few milliseconds for a packet or the end of the connection.
[[nodiscard]] Receipt ReceivePacket(int fd, std::span<std::byte> buffer, std::size_t& length,
                                    Patience patience);

// Waits until `fd` is ready for `events` or has hung up; false if neither by `deadline`, or if a
// signal comes first.
[[nodiscard]] bool WaitReady(int fd, short events, const std::optional<SteadyTime>& deadline);

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_WIRE_IO_H
