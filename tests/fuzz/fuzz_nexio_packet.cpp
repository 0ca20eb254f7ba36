// The packet parser of the messaging library: what it takes must be what a sender would have made.
#include <cstring>
#include <span>

#include "platform/nexio/address.h"
#include "platform/nexio/packet.h"
#include "tests/fuzz/fuzz_input.h"

namespace Nexio = ProcMgr::Nexio;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Nexio::Packet packet;
  if (Nexio::ParsePacket(std::as_bytes(std::span(data, size)), packet) != nullptr) {
    return 0;
  }
  const auto header = Nexio::MakeHeader(packet.kind, packet.seq, packet.size);
  if (header.size() + packet.size != size || std::memcmp(header.data(), data, header.size()) != 0) {
    std::abort();
  }
  // Reads every byte of the data that the packet claims to have.
  const std::string_view text(reinterpret_cast<const char*>(packet.data), packet.size);
  if (Nexio::IsServerName(text) && !Nexio::IsClientName(text)) {
    std::abort();
  }
  return 0;
}
