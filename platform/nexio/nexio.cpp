#include "message/nexio.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "base/shortage.h"
#include "base/sleep.h"
#include "core/log.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/connector.h"
#include "platform/nexio/handle_table.h"
#include "platform/nexio/nexio_peer.h"
#include "platform/nexio/packet.h"
#include "platform/nexio/reactor.h"
#include "platform/nexio/server.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr {
namespace {

using Nexio::HandleTable;

// How long a server of an ordinary user waits for root to make the socket directory.
constexpr auto kDirectoryPatience = std::chrono::seconds(10);

void OnWake(Nexio::Token token, Nexio::Wake why, std::span<std::byte> buffer) {
  if (token.kind == Nexio::TokenKind::kServer) {
    if (const auto server = HandleTable::Instance().FindServer(token.handle)) {
      server->Accept();
    }
  } else if (const auto channel = HandleTable::Instance().FindChannel(token.handle)) {
    if (why == Nexio::Wake::kAlarm) {
      channel->AlarmIsDue();
    } else {
      channel->Serve(buffer);
    }
  }
}

// The name under which this process says hello: its PROC_NAME, else that of its program.
std::string OwnName() {
  const char* const name = secure_getenv("PROC_NAME");
  std::string result = name != nullptr ? name : "";
  if (!Nexio::IsClientName(result)) {
    result = program_invocation_short_name;
  }
  return Nexio::IsClientName(result) ? result : "unnamed";
}

// Of memory or of descriptors: what can't be opened now is missed as long as its peer lives. Yields
// the result of `attempt` that is no shortage, or the last one.
template <typename Attempt>
int ThroughShortage(const Attempt& attempt) {
  const SteadyTime end = SteadyNow() + kShortagePatience;
  int result = attempt();
  while (Nexio::IsShortage(-result) && SteadyNow() < end) {
    SleepNs(kShortagePauseNs);
    result = attempt();
  }
  return result;
}

// Makes a channel of the connection. It isn't given up for a shortage as long as that may pass:
// what its server has said on it by now, it says once.
int Adopt(const NexioOpenParam& param, const NexioPeer& peer, UniqueFd& fd) {
  const int handle = HandleTable::Instance().NewHandle(HandleTable::Use::kOwn);
  if (handle == 0) {
    return -EMFILE;
  }
  std::shared_ptr<Nexio::Channel> channel;
  ThroughMemoryShortage([&] {
    auto callbacks = std::make_shared<Nexio::Callbacks>();
    callbacks->onRequest = param.requestCallback;
    // Nothing fails any more once the descriptor has been handed on.
    std::string name = param.peerName;
    channel = std::make_shared<Nexio::Channel>(handle, std::move(fd), peer, std::move(name),
                                               std::move(callbacks));
  });
  ThroughMemoryShortage([&] { HandleTable::Instance().Add(handle, channel); });
  if (const int started = ThroughShortage([&] { return channel->Start(); }); started < 0) {
    (void)channel->Close();
    return started;
  }
  return handle;
}

int OpenOnce(const NexioOpenParam& param, SteadyTime deadline) try {
  if (const int result = Nexio::Reactor::Opened().Start(&OnWake); result < 0) {
    return result;
  }
  // Best effort: a server that comes before us and isn't root waits for it.
  (void)Nexio::MakeSocketDirectory();
  UniqueFd fd;
  NexioPeer peer;
  const int connected = Nexio::ConnectToServer(param.peerName, param.gid, OwnName(), deadline,
                                               param.cancelFd, fd, peer);
  if (connected == kNexioDenied) {
    LogWarning("NEXIO : %s is served by another group, pid=%d, uid=%u, gid=%u", param.peerName,
               peer.pid, peer.uid, peer.gid);
  }
  return connected < 0 ? connected : Adopt(param, peer, fd);
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

int ServeOnce(const NexioServerParam& param, const std::string& name) try {
  if (const int result = Nexio::Reactor::Accepted().Start(&OnWake); result < 0) {
    return result;
  }
  Nexio::Claim claim;
  if (const int result = Nexio::ClaimName(name, SteadyNow() + kDirectoryPatience, claim);
      result < 0) {
    LogError("NEXIO : can't serve %s, errno=%d", name.c_str(), -result);
    return result;
  }
  const int handle = HandleTable::Instance().NewHandle(HandleTable::Use::kOwn);
  if (handle == 0) {
    Nexio::ReleaseName(name, claim);
    return -EMFILE;
  }
  auto callbacks = std::make_shared<Nexio::Callbacks>();
  callbacks->onConnect = param.connectCallback;
  callbacks->onRequest = param.requestCallback;
  const auto server = std::make_shared<Nexio::Server>(
      handle, name, std::move(claim), param.maxClients, std::move(callbacks), param.peerFilter);
  HandleTable::Instance().Add(handle, server);
  if (const int started = server->Start(); started < 0) {
    (void)server->Close();
    return started;
  }
  return handle;
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

}  // namespace

int NexioOpen(const NexioOpenParam& param) {
  if (param.peerName == nullptr || !Nexio::IsServerName(param.peerName)) {
    return kNexioBadName;
  }
  const SteadyTime deadline = SteadyNow() + std::chrono::milliseconds(param.timeout);
  return ThroughShortage([&] { return OpenOnce(param, deadline); });
}

int NexioCreateServer(const NexioServerParam& param) try {
  const char* const given =
      param.serverName != nullptr ? param.serverName : secure_getenv("PROC_NAME");
  if (given == nullptr || !Nexio::IsServerName(given)) {
    return kNexioBadName;
  }
  const std::string name = given;
  return ThroughShortage([&] { return ServeOnce(param, name); });
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

int NexioClearName(const char* name, uid_t uid, gid_t gid) try {
  return name != nullptr && Nexio::IsServerName(name) ? Nexio::ClearName(name, uid, gid)
                                                      : kNexioBadName;
} catch (const std::bad_alloc&) {
  return -ENOMEM;
}

int NexioSendRequest(int fd, const NexioRequest& request) {
  const auto channel = HandleTable::Instance().FindChannel(fd);
  return channel == nullptr ? kNexioBadFd : channel->SendRequest(request);
}

int NexioSendResponse(int fd, const NexioResponse& response) {
  const auto channel = HandleTable::Instance().FindChannel(fd);
  return channel == nullptr ? kNexioBadFd : channel->SendResponse(response);
}

int NexioRPCSync(int fd, const NexioRequest& request, NexioResponse& response) {
  const auto channel = HandleTable::Instance().FindChannel(fd);
  return channel == nullptr ? kNexioBadFd : channel->Call(request, response, std::nullopt);
}

int NexioTimedRPCSync(int fd, const NexioRequest& request, NexioResponse& response,
                      std::uint32_t timeoutMs) {
  const SteadyTime deadline = SteadyNow() + std::chrono::milliseconds(timeoutMs);
  const auto channel = HandleTable::Instance().FindChannel(fd);
  return channel == nullptr ? kNexioBadFd : channel->Call(request, response, deadline);
}

int NexioAwaitRoom(int fd, std::uint32_t timeoutMs) {
  const SteadyTime deadline = SteadyNow() + std::chrono::milliseconds(timeoutMs);
  const auto channel = HandleTable::Instance().FindChannel(fd);
  return channel == nullptr ? kNexioBadFd : channel->AwaitRoom(deadline);
}

int NexioClosePipe(int fd) {
  HandleTable& handles = HandleTable::Instance();
  if (const auto channel = handles.FindChannel(fd)) {
    return channel->Close();
  }
  if (const auto server = handles.FindServer(fd)) {
    return server->Close();
  }
  return handles.TakeLate(fd) ? 0 : kNexioBadFd;
}

int NexioGetPeer(int fd, NexioPeer& out) {
  const auto channel = HandleTable::Instance().FindChannel(fd);
  if (channel == nullptr) {
    return kNexioBadFd;
  }
  out = channel->Peer();
  return 0;
}

}  // namespace ProcMgr
