// The service's end of the channel to the manager. What the service asks of it is in
// manager_link.cpp, what the manager brings in manager_link_events.cpp.
//
// A link serves the service's name. Every connection that the manager makes becomes the channel,
// and the one before it is forgotten: its frames are dropped and it is closed. A link is `up` while
// it has a channel.
//
// Threads. The messaging library calls OnConnect and OnRequest on its threads, one call at a time
// for each connection; but the last call for an old connection and the first for a new one can
// overlap. The service's callbacks must not, so a call that has something to tell waits for its
// turn (telling_). What there is to tell about the channel is worked out when the turn comes:
// whichever of the two calls gets it first, the service hears last what is true last.
//
// Whoever holds a callback of the messaging library holds the link with it, so a link outlives its
// connections, however late they end.
#ifndef AGENT_MANAGER_LINK_H
#define AGENT_MANAGER_LINK_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/process_manager_agent.h"
#include "agent/request_frames.h"
#include "base/mutex.h"
#include "base/steady_time.h"
#include "message/nexio.h"
#include "message/request_msg.h"
#include "message/serialization.h"

namespace ProcMgr {

// The time `wait` from now; the end of time if that lies beyond it.
[[nodiscard]] SteadyTime DeadlineAfter(std::chrono::milliseconds wait);

class ManagerLink : public std::enable_shared_from_this<ManagerLink> {
 public:
  explicit ManagerLink(Agent::Callbacks callbacks);
  ~ManagerLink() = default;
  ManagerLink(const ManagerLink&) = delete;
  ManagerLink& operator=(const ManagerLink&) = delete;

  // Begins to serve `name`. To be called once, before anything else.
  [[nodiscard]] Result Serve(const std::string& name) EXCLUDES(mutex_);
  // As Agent::Stop.
  void Stop() EXCLUDES(mutex_);

  [[nodiscard]] bool IsUp() EXCLUDES(mutex_);
  [[nodiscard]] bool IsStopped() EXCLUDES(mutex_);
  [[nodiscard]] Result AwaitUp(SteadyTime deadline) EXCLUDES(mutex_);

  // Sends the frames in order on one channel, waiting for one until `deadline`.
  [[nodiscard]] Result Send(const Serialization::PieceList& frames, SteadyTime deadline)
      EXCLUDES(mutex_);
  // As Agent::ReportState.
  [[nodiscard]] Result ReportState(ServiceState state, SteadyTime deadline) EXCLUDES(mutex_);
  // Sends a frame and waits for its response, whose text goes to `answer`.
  [[nodiscard]] Result Call(const Message::RequestMsg& frame, SteadyTime deadline,
                            std::string& answer) EXCLUDES(mutex_);
  // Sends a question and waits for the report on exactly its names, which it adds to `status`.
  [[nodiscard]] Result Query(const AgentFrames::QueryFrame& query, SteadyTime deadline,
                             Agent::StatusMap& status) EXCLUDES(mutex_);
  [[nodiscard]] Result SendHeartMsg() EXCLUDES(heartMutex_, mutex_);

 private:
  // A thread that waits in Query, on its stack.
  struct PendingQuery {
    const std::vector<std::string>* names = nullptr;
    int fd = 0;
    bool done = false;
    Result result = Result::kOk;
    Agent::StatusMap status;
  };

  void OnConnect(int fd) EXCLUDES(mutex_);
  void OnRequest(int fd, const NexioRequest* request) EXCLUDES(mutex_);
  void OnBroken(int fd) EXCLUDES(mutex_);
  void OnFrame(int fd, const Message::RequestMsg& frame) EXCLUDES(mutex_);
  void OnAppStates(int fd, const Message::RequestMsg& frame) EXCLUDES(mutex_);
  void OnAppStatus(int fd, const Message::RequestMsg& frame) EXCLUDES(mutex_);

  // Makes `fd` the channel, 0 for none; who waits for an answer on the old one hears that.
  void SetChannel(int fd) REQUIRES(mutex_);
  // Gives the answer to the query that waits for it; false if there is none.
  bool AnswerQuery(int fd, Agent::StatusMap& status) REQUIRES(mutex_);

  // Waits for the turn to call the service; false if the link has been stopped.
  [[nodiscard]] bool TakeTurn() REQUIRES(mutex_);
  void GiveTurn() REQUIRES(mutex_);
  // Has the turn: calls a function of the service, with the lock released.
  void Tell(const std::function<void()>& call) REQUIRES(mutex_);
  // Tells a report of the channel `fd`, unless that is forgotten.
  void TellReport(int fd, const std::function<void()>& call) EXCLUDES(mutex_);
  // Tells that the channel has come or gone, if the service doesn't know it yet.
  void TellChannel() EXCLUDES(mutex_);

  [[nodiscard]] Result AwaitChannel(SteadyTime deadline, int& fd) REQUIRES(mutex_);
  [[nodiscard]] Result SendOn(int fd, const Serialization::PieceList& frames) EXCLUDES(mutex_);
  // Reports on the new channel `fd` what the manager was told before it; `count` is that of the
  // reports when the channel came.
  void RepeatState(int fd, ServiceState state, std::uint64_t count) EXCLUDES(mutex_);
  // The result of a call of the messaging library on a channel.
  [[nodiscard]] Result ResultOf(int code, const char* what) EXCLUDES(mutex_);
  [[nodiscard]] bool InCallback() EXCLUDES(mutex_);

  // Constant. The user whose connections are accepted besides root's, if they are the manager's
  // (base/manager_pid.h): the service's own when the link was made.
  const Agent::Callbacks callbacks_;
  const uid_t ownUser_;

  // Heart messages leave in the order of their numbers. Taken before mutex_.
  Mutex heartMutex_;
  int heartFd_ GUARDED_BY(heartMutex_) = 0;
  std::uint64_t heartIndex_ GUARDED_BY(heartMutex_) = 0;

  // Never held during a call of the messaging library or of the service.
  Mutex mutex_ ACQUIRED_AFTER(heartMutex_);
  CondVar changed_;
  int server_ GUARDED_BY(mutex_) = 0;
  int channel_ GUARDED_BY(mutex_) = 0;
  int toldChannel_ GUARDED_BY(mutex_) = 0;  // The channel that the service knows of.
  // What is repeated on a new channel, once it has found one; and how many reports set it.
  std::optional<ServiceState> lastState_ GUARDED_BY(mutex_);
  std::uint64_t stateCount_ GUARDED_BY(mutex_) = 0;
  bool stopped_ GUARDED_BY(mutex_) = false;
  bool telling_ GUARDED_BY(mutex_) = false;
  std::thread::id teller_ GUARDED_BY(mutex_);
  // In the order in which the questions were asked.
  std::list<PendingQuery*> queries_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // AGENT_MANAGER_LINK_H
