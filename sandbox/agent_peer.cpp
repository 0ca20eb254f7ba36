#include "sandbox/agent_peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/steady_time.h"
#include "message/serialization.h"
#include "sandbox/system_error.h"

namespace PmSandbox {
namespace {

using ProcMgr::Message::AppStateInfo;
using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;
using ProcMgr::Serialization::PackedItem;
using ProcMgr::Serialization::PieceList;

template <typename Content, typename Pack>
PieceList Frames(RequestType type, const Content& content, Pack pack) {
  std::vector<PackedItem> packed;
  PieceList frames;
  Demand(pack(content, packed), "a request can't be packed");
  Demand(ProcMgr::Serialization::ProcMgrCombinePiecesMsg(type, packed, frames), "frames");
  return frames;
}

}  // namespace

std::string FrameBytes(const RequestMsg& frame) {
  return {reinterpret_cast<const char*>(&frame), sizeof(frame)};
}

RawPacket FramePacket(const RequestMsg& frame) {
  return MakePacket(kRequest, 1, FrameBytes(frame));
}

RequestMsg TextFrame(RequestType type, const std::string& text) {
  RequestMsg frame;
  frame.type = type;
  frame.size = text.size();
  (void)text.copy(frame.data, sizeof(frame.data));
  return frame;
}

RequestMsg StateFrame(std::uint32_t state) {
  return TextFrame(RequestType::BASESERVICE_STATE_REPORT, "1#" + std::to_string(state) + "#");
}

RawPeer AcceptReady(const RawServer& server) {
  std::optional<RawPeer> peer = server.AcceptGreeted();
  Demand(peer.has_value() && peer->Send(FramePacket(StateFrame(kStateReady))), "no channel");
  return std::move(*peer);
}

RequestMsg HeartFrame(std::uint64_t index) {
  RequestMsg frame;
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  ProcMgr::Serialization::ProcMgrPackHeartMsg({index, static_cast<std::uint64_t>(now.count())},
                                              frame);
  return frame;
}

AgentPeer::AgentPeer(const Sandbox& sandbox, std::string name, gid_t gid)
    : name_(std::move(name)), server_(sandbox, name_, gid) {}

AgentPeer::~AgentPeer() {
  Close();
}

bool AgentPeer::AwaitChannel(std::chrono::milliseconds patience) {
  std::optional<RawPeer> next = server_.AcceptGreeted(patience);
  if (!next.has_value()) {
    return false;
  }
  Close();
  peer_ = std::move(next);
  {
    const ProcMgr::MutexLock lock(mutex_);
    isClosed_ = false;
  }
  reader_ = std::thread([this] { ReadLoop(*peer_); });
  return true;
}

void AgentPeer::Close() {
  if (reader_.joinable()) {
    // The reader may be waiting in the socket, so it can't be closed under it.
    (void)shutdown(peer_->Fd(), SHUT_RDWR);
    reader_.join();
    peer_.reset();
  }
}

bool AgentPeer::AwaitClosed() const {
  const ProcMgr::MutexLock lock(mutex_);
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (!isClosed_) {
    if (!changed_.WaitUntil(mutex_, deadline)) {
      return isClosed_;
    }
  }
  return true;
}

bool AgentPeer::Send(const RequestMsg& frame) const {
  return SendPacket(FramePacket(frame));
}

template <typename List, typename Pack>
bool AgentPeer::Request(RequestType type, const List& list, Pack pack) const {
  const PieceList frames = Frames(type, list, pack);
  return std::all_of(frames.begin(), frames.end(),
                     [this](const RequestMsg& frame) { return Send(frame); });
}

bool AgentPeer::StartApps(const std::vector<ProcMgr::Message::StartAppInfo>& list) const {
  return Request(RequestType::START_APP, list, ProcMgr::Serialization::ProcMgrPackStartRequest);
}

bool AgentPeer::RestartApps(const std::vector<ProcMgr::Message::RestartAppInfo>& list) const {
  return Request(RequestType::RESTART_APP, list, ProcMgr::Serialization::ProcMgrPackRestartRequest);
}

bool AgentPeer::TermApps(const std::vector<std::string>& names) const {
  std::vector<ProcMgr::Message::TermAppInfo> list;
  list.reserve(names.size());
  for (const std::string& name : names) {
    list.push_back({name});
  }
  return Request(RequestType::TERM_APP, list, ProcMgr::Serialization::ProcMgrPackTermRequest);
}

bool AgentPeer::AskToLoad(const std::map<std::string, std::string>& matchData, bool reload) {
  const PieceList frames =
      Frames(reload ? RequestType::RELOAD_STARTUP_CFG : RequestType::LOAD_STARTUP_CFG,
             ProcMgr::Message::StartupCfgInfo{matchData, "/the/manager/knows/better"},
             ProcMgr::Serialization::ProcMgrPackMatchDataAndPathRequest);
  return SendPacket(MakePacket(kRequest, ++sequence_, FrameBytes(frames.at(0))));
}

std::string AgentPeer::LoadStartupCfg(const std::map<std::string, std::string>& matchData,
                                      bool reload) {
  if (!AskToLoad(matchData, reload)) {
    return "none";
  }
  const std::uint32_t sequence = sequence_;
  const ProcMgr::MutexLock lock(mutex_);
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (!responses_.contains(sequence)) {
    if (isClosed_ || !changed_.WaitUntil(mutex_, deadline)) {
      return "none";
    }
  }
  return responses_[sequence];
}

std::map<std::string, int> AgentPeer::Query(const std::vector<std::string>& names) {
  RequestMsg frame;
  Demand(ProcMgr::Serialization::ProcMgrPackQueryAppState(names, frame), "a query");
  {
    const ProcMgr::MutexLock lock(mutex_);
    statuses_.clear();
  }
  if (!Send(frame)) {
    return {};
  }
  const ProcMgr::MutexLock lock(mutex_);
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (statuses_.empty()) {
    if (isClosed_ || !changed_.WaitUntil(mutex_, deadline)) {
      return {};
    }
  }
  return statuses_.front();
}

std::optional<AppStateInfo> AgentPeer::NextReport(std::chrono::milliseconds patience) {
  const ProcMgr::MutexLock lock(mutex_);
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + patience;
  while (taken_ == reports_.size()) {
    if (!changed_.WaitUntil(mutex_, deadline) && taken_ == reports_.size()) {
      return std::nullopt;
    }
  }
  return reports_[taken_++];
}

std::vector<std::string> AgentPeer::NextReports(std::size_t count) {
  std::vector<std::string> texts;
  while (texts.size() < count) {
    const auto report = NextReport();
    if (!report.has_value()) {
      break;
    }
    texts.push_back(report->appName + " " + std::to_string(report->state));
  }
  return texts;
}

std::size_t AgentPeer::PendingReports() const {
  const ProcMgr::MutexLock lock(mutex_);
  return reports_.size() - taken_;
}

void AgentPeer::ReadLoop(const RawPeer& peer) {
  // A day: only the end of the channel ends the loop.
  while (const auto packet = peer.Receive(std::chrono::hours(24))) {
    const ProcMgr::MutexLock lock(mutex_);
    Keep(*packet);
    changed_.NotifyAll();
  }
  const ProcMgr::MutexLock lock(mutex_);
  isClosed_ = true;
  changed_.NotifyAll();
}

// A frame that the manager never sends ends the test program: a reader has nobody to throw to.
void AgentPeer::Keep(const RawPacket& packet) {
  if (packet.kind == kResponse) {
    responses_[packet.sequence] = packet.data;
    return;
  }
  RequestMsg frame;
  Demand(packet.data.size() == sizeof(frame), "the manager sent no frame");
  std::memcpy(static_cast<void*>(&frame), packet.data.data(), sizeof(frame));
  if (frame.type == RequestType::APP_STATE_REPORT) {
    std::vector<AppStateInfo> list;
    ProcMgr::Serialization::ProcMgrUnpackedAppStateRequest(&frame, list);
    Demand(!list.empty(), "the manager sent an empty report");
    reports_.insert(reports_.end(), list.begin(), list.end());
    return;
  }
  Demand(frame.type == RequestType::APP_DETAIL_STATUS_REPORT, "the manager sent a request");
  std::map<std::string, int> status;
  Demand(ProcMgr::Serialization::ProcMgrUnpackAppDetailStatus(&frame, status),
         "the manager sent a broken answer");
  statuses_.push_back(status);
}

}  // namespace PmSandbox
