// A peer of the messaging library that is written by hand, packet by packet, so that the library is
// tested against its wire and not against itself, and so that a test can break every rule of it.
#ifndef SANDBOX_RAW_PEER_H
#define SANDBOX_RAW_PEER_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"

namespace PmSandbox {

inline constexpr std::uint32_t kPacketMagic = 0x4f58454e;
inline constexpr std::uint16_t kPacketVersion = 1;
inline constexpr std::uint16_t kHello = 1;
inline constexpr std::uint16_t kRequest = 2;
inline constexpr std::uint16_t kResponse = 3;

// One packet: the header's fields, then the data. `size` is what the header says, which a packet
// that lies about it may set to anything.
struct RawPacket {
  std::uint32_t magic = kPacketMagic;
  std::uint16_t version = kPacketVersion;
  std::uint16_t kind = kRequest;
  std::uint32_t sequence = 0;
  std::uint32_t size = 0;
  std::string data;
};

// A well-formed packet.
RawPacket MakePacket(std::uint16_t kind, std::uint32_t sequence, std::string data);
// Its bytes, little-endian: 16 of header and the data as it is.
std::string EncodePacket(const RawPacket& packet);

// One end of a connection.
class RawPeer {
 public:
  explicit RawPeer(ProcMgr::UniqueFd socket) : socket_(std::move(socket)) {}

  // Waits for the next packet; none if the peer has closed, `patience` has passed or what came is
  // shorter than a header.
  [[nodiscard]] std::optional<RawPacket> Receive(
      std::chrono::milliseconds patience = kPatience) const;
  // Waits until the other side has closed, and drops what comes before that.
  [[nodiscard]] bool AwaitClosed(std::chrono::milliseconds patience = kPatience) const;

  // Yields false if the connection has broken. Blocks while the other side doesn't read.
  bool Send(const RawPacket& packet) const { return SendBytes(EncodePacket(packet)); }
  bool SendBytes(std::string_view bytes) const;

  void Close() { socket_.Reset(); }
  [[nodiscard]] int Fd() const { return socket_.Get(); }

 private:
  ProcMgr::UniqueFd socket_;
};

// Serves a name in the sandbox's /run/nexio.
class RawServer {
 public:
  // The group that the connecting side sees is `gid`.
  RawServer(const Sandbox& sandbox, const std::string& name, gid_t gid);
  // Leaves the socket file where it is, as a service that was killed does.
  ~RawServer() = default;
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // The next connection; none if nobody has come within `patience`.
  [[nodiscard]] std::optional<RawPeer> Accept(std::chrono::milliseconds patience = kPatience) const;
  // The same, with its hello read and dropped; none if it came with anything else.
  [[nodiscard]] std::optional<RawPeer> AcceptGreeted(
      std::chrono::milliseconds patience = kPatience) const;

 private:
  ProcMgr::UniqueFd socket_;
};

// Connects to a server of the sandbox. No hello is sent. None if nobody serves the name.
std::optional<RawPeer> ConnectRaw(const Sandbox& sandbox, const std::string& name);
// The same for a process of the calling thread's user that has ended when this returns: the server
// sees its pid. `before` is called with that before it connects.
std::optional<RawPeer> ConnectRawAsAnother(const Sandbox& sandbox, const std::string& name,
                                           const std::function<void(pid_t)>& before);

}  // namespace PmSandbox

#endif  // SANDBOX_RAW_PEER_H
