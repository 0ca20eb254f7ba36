#include "platform/nexio/packet.h"

#include <algorithm>

namespace ProcMgr::Nexio {
namespace {

constexpr std::uint32_t kMagic = 0x4f58454e;
constexpr std::uint16_t kVersion = 1;

constexpr std::size_t kVersionAt = 4;
constexpr std::size_t kKindAt = 6;
constexpr std::size_t kSeqAt = 8;
constexpr std::size_t kSizeAt = 12;
static_assert(kSizeAt + sizeof(std::uint32_t) == kHeaderSize);

// Byte by byte, so that the order on the wire doesn't depend on the machine's; compilers make one
// load or store of it.
void Put(std::span<std::byte> out, std::size_t at, std::uint32_t value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    out[at + i] = static_cast<std::byte>(value >> (8 * i));
  }
}

std::uint32_t Get(std::span<const std::byte> bytes, std::size_t at, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value |= std::to_integer<std::uint32_t>(bytes[at + i]) << (8 * i);
  }
  return value;
}

}  // namespace

std::array<std::byte, kHeaderSize> MakeHeader(PacketKind kind, std::uint32_t seq,
                                              std::uint32_t size) {
  std::array<std::byte, kHeaderSize> header{};
  Put(header, 0, kMagic, 4);
  Put(header, kVersionAt, kVersion, 2);
  Put(header, kKindAt, static_cast<std::uint32_t>(kind), 2);
  Put(header, kSeqAt, seq, 4);
  Put(header, kSizeAt, size, 4);
  return header;
}

const char* ParsePacket(std::span<const std::byte> bytes, Packet& out) {
  if (bytes.size() < kHeaderSize) {
    return "packet shorter than its header";
  }
  if (bytes.size() > kMaxPacket) {
    return "packet too long";
  }
  if (Get(bytes, 0, 4) != kMagic) {
    return "wrong magic";
  }
  if (Get(bytes, kVersionAt, 2) != kVersion) {
    return "unknown version";
  }
  const std::uint32_t kind = Get(bytes, kKindAt, 2);
  if (kind < static_cast<std::uint32_t>(PacketKind::kHello) ||
      kind > static_cast<std::uint32_t>(PacketKind::kResponse)) {
    return "unknown kind";
  }
  const std::uint32_t size = Get(bytes, kSizeAt, 4);
  if (size != bytes.size() - kHeaderSize) {
    return "size doesn't agree with the packet's length";
  }
  out.kind = static_cast<PacketKind>(kind);
  out.seq = Get(bytes, kSeqAt, 4);
  out.data = bytes.data() + kHeaderSize;
  out.size = size;
  return nullptr;
}

bool IsClientName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxClientName &&
         std::none_of(name.begin(), name.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte < 0x20 || byte == 0x7f;
         });
}

}  // namespace ProcMgr::Nexio
