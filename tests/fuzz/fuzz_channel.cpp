// What comes on one connection after the other of a server: packets in any order, right and wrong
// ones, answers to what was asked and to what wasn't, an end at any point. Input: a byte a step,
// then what the step needs.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/nexio/address.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/server.h"
#include "tests/fuzz/fuzz_input.h"

namespace Nexio = ProcMgr::Nexio;
using PmTest::FuzzBytes;
using PmTest::Require;

namespace {

constexpr std::string_view kEnd = "the end";  // In place of a request, which is shorter.

// One connection and what must come of it.
class Connection {
 public:
  Connection() {
    int ends[2] = {-1, -1};
    Require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    peer_.Reset(ends[0]);
    Nexio::PrepareSocket(ends[1]);
    auto callbacks = std::make_shared<Nexio::Callbacks>();
    callbacks->onConnect = [this](int /*fd*/, const char* name, std::uint32_t size) {
      Require(std::strlen(name) == size);
      told_.emplace_back(name);
    };
    callbacks->onRequest = [this](int /*fd*/, const ProcMgr::NexioRequest* request) {
      told_.emplace_back(
          request == nullptr
              ? kEnd
              : std::string_view(static_cast<const char*>(request->data), request->size));
    };
    const auto server = std::make_shared<Nexio::Server>(1, "fuzz", Nexio::Claim{}, 1, callbacks,
                                                        ProcMgr::NexioPeerFilter());
    channel_ = std::make_unique<Nexio::Channel>(2, ProcMgr::UniqueFd(ends[1]), ProcMgr::NexioPeer{},
                                                server, callbacks, ProcMgr::SteadyTime::max());
  }

  void Send(std::string_view bytes) {
    if (send(peer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      return;  // There is no room, or the channel is broken.
    }
    waits_ = true;
    Nexio::Packet packet;
    const bool isPacket = Nexio::ParsePacket(std::as_bytes(std::span(bytes)), packet) == nullptr;
    const std::string data(reinterpret_cast<const char*>(packet.data), packet.size);
    const bool isHello = packet.kind == Nexio::PacketKind::kHello;
    const bool isAnswer = packet.kind == Nexio::PacketKind::kResponse;
    isWhole_ = isWhole_ && isPacket && isHello == !isGreeted_ &&
               (!isHello || Nexio::IsClientName(data)) &&
               (!isAnswer || (packet.seq >= 1 && packet.seq <= asked_));
    if (isWhole_ && !isAnswer) {
      isGreeted_ = true;
      expected_.push_back(data);
    }
  }

  // One that is served with nothing there would linger for it.
  void Serve() {
    static std::vector<std::byte> buffer(Nexio::kMaxPacket);
    if (std::exchange(waits_, false)) {
      channel_->Serve(buffer);
    }
  }

  void Ask(std::string_view text) {
    // An answer that was checked before it was asked for may have been read since.
    Serve();
    (void)channel_->SendRequest({0, text.data(), static_cast<std::uint32_t>(text.size())});
    ++asked_;
  }

  void End() {
    peer_.Reset();
    constexpr int kTurns = 4;  // One may end before all has been read.
    for (int i = 0; i < kTurns; ++i) {
      waits_ = true;
      Serve();
    }
    if (isGreeted_) {
      expected_.emplace_back(kEnd);
    }
    Require(told_ == expected_);
    (void)channel_->Close();
  }

  void Close() {
    (void)channel_->Close();
    const std::size_t count = told_.size();
    waits_ = true;
    Serve();
    expected_.emplace_back(kEnd);  // It may have been broken before.
    Require(told_.size() == count && count <= expected_.size() &&
            std::equal(told_.begin(), told_.end(), expected_.begin()));
  }

 private:
  ProcMgr::UniqueFd peer_;
  std::unique_ptr<Nexio::Channel> channel_;
  std::vector<std::string> told_;
  std::vector<std::string> expected_;
  std::uint32_t asked_ = 0;
  bool isGreeted_ = false;
  bool isWhole_ = true;
  bool waits_ = false;
};

std::string PacketOf(FuzzBytes& input) {
  const auto kind = static_cast<Nexio::PacketKind>(input.Byte() % 4);
  const std::uint32_t seq = input.Byte() % 4;
  const std::string_view data = input.Take(input.Byte() % 32);
  const auto header = Nexio::MakeHeader(kind, seq, static_cast<std::uint32_t>(data.size()));
  return std::string(reinterpret_cast<const char*>(header.data()), header.size()).append(data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzBytes input(data, size);
  auto connection = std::make_unique<Connection>();
  while (!input.IsEmpty()) {
    switch (input.Byte() % 8) {
      case 0:
        connection->Send(input.Take(input.Byte()));
        break;
      case 1:
        connection->Serve();
        break;
      case 2:
        connection->Ask(input.Take(input.Byte() % 8));
        break;
      case 3:
        connection->End();
        connection = std::make_unique<Connection>();
        break;
      case 4:
        connection->Close();
        connection = std::make_unique<Connection>();
        break;
      default:
        connection->Send(PacketOf(input));
        break;
    }
  }
  connection->End();
  return 0;
}
