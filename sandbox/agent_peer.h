// A base service's end of its channel, played by the test: it can say anything at any moment, and
// nothing that the manager sends gets lost, because a thread reads all the time.
#ifndef SANDBOX_AGENT_PEER_H
#define SANDBOX_AGENT_PEER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "message/request_msg.h"
#include "sandbox/raw_peer.h"
#include "sandbox/wait.h"

namespace PmSandbox {

inline constexpr std::uint32_t kStateUp = 0;
inline constexpr std::uint32_t kStateReportAll = 1;
inline constexpr std::uint32_t kStateReady = 2;
inline constexpr std::uint32_t kStateGoingDown = 3;

// A frame as the data of a packet, and the packet of one that asks for no answer.
std::string FrameBytes(const ProcMgr::Message::RequestMsg& frame);
RawPacket FramePacket(const ProcMgr::Message::RequestMsg& frame);
// A text frame whose body is `text` as it stands, however wrong it is.
ProcMgr::Message::RequestMsg TextFrame(ProcMgr::Message::RequestType type, const std::string& text);
// The frame in which a base service reports its state.
ProcMgr::Message::RequestMsg StateFrame(std::uint32_t state);
ProcMgr::Message::RequestMsg HeartFrame(std::uint64_t index);

// Waits for the manager to open the channel of a service that nobody reads for, and reports that it
// is ready. Throws if that doesn't come.
RawPeer AcceptReady(const RawServer& server);

// Serves one name and keeps what arrives. Made before the daemon, on the test's thread.
class AgentPeer {
 public:
  AgentPeer(const Sandbox& sandbox, std::string name, gid_t gid = 0);
  ~AgentPeer();
  AgentPeer(const AgentPeer&) = delete;
  AgentPeer& operator=(const AgentPeer&) = delete;

  [[nodiscard]] const std::string& Name() const { return name_; }

  // Waits for the manager to open its next channel, which takes the place of the last one.
  [[nodiscard]] bool AwaitChannel(std::chrono::milliseconds patience = kPatience);
  // The same, and reports that the service is ready.
  [[nodiscard]] bool BecomeReady() { return AwaitChannel() && ReportState(kStateReady); }
  // Drops the channel without a word.
  void Close();
  // Waits until the manager has closed the channel.
  [[nodiscard]] bool AwaitClosed() const EXCLUDES(mutex_);

  // Each yields false if the channel has broken. They block while the manager doesn't read.
  [[nodiscard]] bool Send(const ProcMgr::Message::RequestMsg& frame) const;
  [[nodiscard]] bool SendPacket(const RawPacket& packet) const { return peer_->Send(packet); }
  [[nodiscard]] bool SendBytes(std::string_view bytes) const { return peer_->SendBytes(bytes); }
  [[nodiscard]] bool ReportState(std::uint32_t state) const { return Send(StateFrame(state)); }
  [[nodiscard]] bool StartApps(const std::vector<ProcMgr::Message::StartAppInfo>& list) const;
  [[nodiscard]] bool RestartApps(const std::vector<ProcMgr::Message::RestartAppInfo>& list) const;
  [[nodiscard]] bool TermApps(const std::vector<std::string>& names) const;

  // Asks for the load, or the reload, of the service's start-up configuration. The second waits for
  // the answer and yields its text; "none" if none comes.
  [[nodiscard]] bool AskToLoad(const std::map<std::string, std::string>& matchData = {},
                               bool reload = false);
  [[nodiscard]] std::string LoadStartupCfg(const std::map<std::string, std::string>& matchData = {},
                                           bool reload = false) EXCLUDES(mutex_);
  // Asks how the named applications stand and yields the answer; empty if none comes.
  [[nodiscard]] std::map<std::string, int> Query(const std::vector<std::string>& names)
      EXCLUDES(mutex_);

  // The next report on an application that hasn't been taken yet, in the order of arrival; none if
  // `patience` passes first.
  [[nodiscard]] std::optional<ProcMgr::Message::AppStateInfo> NextReport(
      std::chrono::milliseconds patience = kPatience) EXCLUDES(mutex_);
  // "NAME STATE" of the next `count` reports; fewer if they don't come.
  [[nodiscard]] std::vector<std::string> NextReports(std::size_t count) EXCLUDES(mutex_);
  // How many reports wait to be taken.
  [[nodiscard]] std::size_t PendingReports() const EXCLUDES(mutex_);

 private:
  template <typename List, typename Pack>
  [[nodiscard]] bool Request(ProcMgr::Message::RequestType type, const List& list, Pack pack) const;
  void ReadLoop(const RawPeer& peer) EXCLUDES(mutex_);
  void Keep(const RawPacket& packet) REQUIRES(mutex_);

  const std::string name_;
  const RawServer server_;
  std::optional<RawPeer> peer_;
  std::thread reader_;
  std::uint32_t sequence_ = 1000;  // Of the last request that waited for its response.

  mutable ProcMgr::Mutex mutex_;
  mutable ProcMgr::CondVar changed_;
  bool isClosed_ GUARDED_BY(mutex_) = true;
  std::vector<ProcMgr::Message::AppStateInfo> reports_ GUARDED_BY(mutex_);
  std::size_t taken_ GUARDED_BY(mutex_) = 0;
  std::vector<std::map<std::string, int>> statuses_ GUARDED_BY(mutex_);
  std::map<std::uint32_t, std::string> responses_ GUARDED_BY(mutex_);
};

}  // namespace PmSandbox

#endif  // SANDBOX_AGENT_PEER_H
