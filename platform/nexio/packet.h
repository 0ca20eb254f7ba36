// The packets of a connection: building and checking them, no I/O.
//
// A packet is a header of 16 bytes, little-endian, and its data:
//   0  magic 0x4f58454e    4  version 1    6  kind    8  sequence number    12  size of the data
// One packet travels as one message of a SOCK_SEQPACKET socket, so its length is known from outside
// and must agree with the size in the header.
#ifndef PLATFORM_NEXIO_PACKET_H
#define PLATFORM_NEXIO_PACKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "message/nexio.h"

namespace ProcMgr::Nexio {

inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kMaxPacket = kHeaderSize + kNexioMaxData;
inline constexpr std::size_t kMaxClientName = 255;

enum class PacketKind : std::uint16_t { kHello = 1, kRequest = 2, kResponse = 3 };

// What a packet says. `data` points into the bytes that were parsed.
struct Packet {
  PacketKind kind = PacketKind::kRequest;
  std::uint32_t seq = 0;
  const std::byte* data = nullptr;
  std::uint32_t size = 0;
};

// The header of a packet with `size` bytes of data, at most kNexioMaxData.
[[nodiscard]] std::array<std::byte, kHeaderSize> MakeHeader(PacketKind kind, std::uint32_t seq,
                                                            std::uint32_t size);

// Reads one whole packet into `out`. Yields null, or what is wrong with the packet, as a text for
// the log, with `out` untouched. Believes nothing that the bytes don't bear out.
[[nodiscard]] const char* ParsePacket(std::span<const std::byte> bytes, Packet& out);

// True for what a hello may carry: 1 to 255 bytes, none of them a control character, because the
// name ends up in log lines.
[[nodiscard]] bool IsClientName(std::string_view name);

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_PACKET_H
