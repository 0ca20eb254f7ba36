#include "agent/manager_link.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "base/manager_pid.h"
#include "base/names.h"
#include "core/log.h"
#include "message/nexio.h"
#include "message/nexio_wrappers.h"

namespace ProcMgr {
namespace {

// The manager's connection, one that it has left behind, and some room for what it leaves while the
// service is stopped.
constexpr std::uint32_t kMaxClients = 64;

NexioRequest RequestOf(const Message::RequestMsg& frame) {
  NexioRequest request;
  request.data = &frame;
  request.size = sizeof(frame);
  return request;
}

std::uint32_t MillisecondsLeft(SteadyTime deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyNow()).count();
  return static_cast<std::uint32_t>(
      std::clamp<std::int64_t>(left, 0, std::numeric_limits<std::uint32_t>::max()));
}

// False for a name that can't be the service's own. Says in one line what is missing and where to
// put it: most services just end then, and the line is all that their author sees.
bool MayServe(const std::string& name) {
  if (name.empty()) {
    LogError(
        "ProcMgrAgent : the service has no name: PROC_NAME isn't set. Put "
        "envArgv: {PROC_NAME: <its appName>} in its service file");
    return false;
  }
  if (name == kManagerName) {
    // A child of the manager inherits its PROC_NAME. A service that served it would take the place
    // of the manager's own server, and the manager would wait for the service's name in vain.
    LogError(
        "ProcMgrAgent : the service has no name: PROC_NAME is PROCMGR, inherited from the manager. "
        "Put envArgv: {PROC_NAME: <its appName>} in its service file");
    return false;
  }
  // The library would see the part in front of it, the beats would carry the whole.
  return name.find('\0') == std::string::npos;
}

}  // namespace

SteadyTime DeadlineAfter(std::chrono::milliseconds wait) {
  const SteadyTime now = SteadyNow();
  if (wait <= std::chrono::milliseconds::zero()) {
    return now;
  }
  const auto room = std::chrono::floor<std::chrono::milliseconds>(SteadyTime::max() - now);
  return wait < room ? now + wait : SteadyTime::max();
}

ManagerLink::ManagerLink(Agent::Callbacks callbacks)
    : callbacks_(std::move(callbacks)), ownUser_(geteuid()) {}

Result ManagerLink::Serve(const std::string& name) {
  if (!MayServe(name)) {
    return Result::kInvalidName;
  }
  NexioServerParam param;
  param.serverName = name.c_str();
  param.maxClients = kMaxClients;
  param.connectCallback = [self = shared_from_this()](int fd, const char*, std::uint32_t) {
    self->OnConnect(fd);
  };
  param.requestCallback = [self = shared_from_this()](int fd, const NexioRequest* request) {
    self->OnRequest(fd, request);
  };
  param.peerFilter = [user = ownUser_](const NexioPeer& peer) {
    // A user that several programs share names none of them, and neither does root.
    return (peer.uid == 0 || (peer.uid == user && peer.pid != 0)) &&
           MayBeManager(peer.pid, peer.uid);
  };
  const int server = NexioCreateServer(param);
  if (server < 0) {
    LogError("ProcMgrAgent : can't serve %s, err code=%d", name.c_str(), server);
    return server == kNexioBadName ? Result::kInvalidName
           : server == -EADDRINUSE ? Result::kNameTaken
                                   : Result::kSystemError;
  }
  const MutexLock lock(mutex_);
  server_ = server;
  return Result::kOk;
}

void ManagerLink::Stop() {
  int server = 0;
  {
    const MutexLock lock(mutex_);
    stopped_ = true;
    SetChannel(0);
    while (telling_ && teller_ != std::this_thread::get_id()) {
      changed_.Wait(mutex_);
    }
    server = std::exchange(server_, 0);
  }
  if (server > 0) {
    // Callbacks that still run call the service no more and end soon.
    ProcMgrNexioClosePipe(server);
  }
}

bool ManagerLink::IsUp() {
  const MutexLock lock(mutex_);
  return channel_ > 0;
}

bool ManagerLink::IsStopped() {
  const MutexLock lock(mutex_);
  return stopped_;
}

Result ManagerLink::AwaitUp(SteadyTime deadline) {
  const MutexLock lock(mutex_);
  int fd = 0;
  return AwaitChannel(deadline, fd);
}

Result ManagerLink::AwaitChannel(SteadyTime deadline, int& fd) {
  while (!stopped_ && channel_ <= 0) {
    if (SteadyNow() >= deadline) {
      return Result::kNoChannel;
    }
    // The loop looks at the time itself.
    (void)changed_.WaitUntil(mutex_, deadline);
  }
  fd = channel_;
  return stopped_ ? Result::kStopped : Result::kOk;
}

Result ManagerLink::Send(const Serialization::PieceList& frames, SteadyTime deadline) {
  int fd = 0;
  {
    const MutexLock lock(mutex_);
    if (const Result result = AwaitChannel(deadline, fd); result != Result::kOk) {
      return result;
    }
  }
  return SendOn(fd, frames);
}

Result ManagerLink::SendOn(int fd, const Serialization::PieceList& frames) {
  for (const Message::RequestMsg& frame : frames) {
    const int sent = ProcMgrNexioSendRequest(fd, RequestOf(frame));
    if (const Result result = ResultOf(sent, "send"); result != Result::kOk) {
      return result;
    }
  }
  return Result::kOk;
}

Result ManagerLink::ReportState(ServiceState state, SteadyTime deadline) {
  Serialization::PieceList frames;
  if (const Result built = AgentFrames::StateFrames(state, frames); built != Result::kOk) {
    return built;
  }
  // The others are requests of the access manager, which make no sense to a manager that didn't get
  // the service's own reports.
  const bool lasts = state == ServiceState::kReady || state == ServiceState::kGoingDown;
  int fd = 0;
  {
    const MutexLock lock(mutex_);
    if (lasts && lastState_.has_value()) {
      // It replaces what would be repeated at once: the channel that this one waits for must not
      // begin with its opposite.
      lastState_ = state;
      ++stateCount_;
    }
    if (const Result result = AwaitChannel(deadline, fd); result != Result::kOk) {
      return result;
    }
    if (lasts && !lastState_.has_value()) {
      lastState_ = state;
      ++stateCount_;
    }
  }
  return SendOn(fd, frames);
}

void ManagerLink::RepeatState(int fd, ServiceState state, std::uint64_t count) {
  for (;;) {
    Serialization::PieceList frames;
    if (AgentFrames::StateFrames(state, frames) != Result::kOk ||
        NexioSendRequest(fd, RequestOf(frames.front())) < 0) {
      return;  // The channel has broken already, and the next one gets it.
    }
    // A report of the service may have been sent in between and stand before ours: then the service
    // has said something newer, which must come last.
    const MutexLock lock(mutex_);
    if (channel_ != fd || stateCount_ == count || !lastState_.has_value()) {
      return;
    }
    state = *lastState_;
    count = stateCount_;
  }
}

Result ManagerLink::Call(const Message::RequestMsg& frame, SteadyTime deadline,
                         std::string& answer) {
  if (InCallback()) {
    return Result::kInCallback;
  }
  int fd = 0;
  {
    const MutexLock lock(mutex_);
    if (const Result result = AwaitChannel(deadline, fd); result != Result::kOk) {
      return result;
    }
  }
  // An answer is a number in decimal; room for more only tells a wrong answer from a long one.
  std::array<char, 64> text{};
  NexioResponse response;
  response.data = text.data();
  response.size = text.size();
  const int called =
      ProcMgrNexioTimedRPCSync(fd, RequestOf(frame), response, MillisecondsLeft(deadline));
  if (called == kNexioTooLong) {
    return Result::kBadAnswer;
  }
  const Result result = ResultOf(called, "call");
  if (result == Result::kOk) {
    answer.assign(text.data(), response.size);
  }
  return result;
}

Result ManagerLink::Query(const AgentFrames::QueryFrame& query, SteadyTime deadline,
                          Agent::StatusMap& status) {
  if (InCallback()) {
    return Result::kInCallback;
  }
  PendingQuery pending;
  pending.names = &query.names;
  {
    // The question is entered before it is sent, so an answer can't come too early for it.
    const MutexLock lock(mutex_);
    if (const Result result = AwaitChannel(deadline, pending.fd); result != Result::kOk) {
      return result;
    }
    queries_.push_back(&pending);
  }
  const int sent = ProcMgrNexioSendRequest(pending.fd, RequestOf(query.frame));
  const Result result = ResultOf(sent, "send");
  const MutexLock lock(mutex_);
  while (result == Result::kOk && !pending.done && SteadyNow() < deadline) {
    // The loop looks at the time itself.
    (void)changed_.WaitUntil(mutex_, deadline);
  }
  queries_.remove(&pending);
  if (result != Result::kOk) {
    return result;
  }
  if (!pending.done) {
    return Result::kTimeout;
  }
  status.merge(pending.status);
  return pending.result;
}

Result ManagerLink::SendHeartMsg() {
  const MutexLock order(heartMutex_);
  int fd = 0;
  {
    const MutexLock lock(mutex_);
    if (const Result result = AwaitChannel(SteadyTime::min(), fd); result != Result::kOk) {
      return result;
    }
  }
  if (std::exchange(heartFd_, fd) != fd) {
    heartIndex_ = 0;
  }
  Message::HeartMsg heart;
  heart.index = heartIndex_ + 1;
  heart.sendTimeMs = static_cast<std::uint64_t>(
      std::chrono::floor<std::chrono::milliseconds>(SteadyNow().time_since_epoch()).count());
  Message::RequestMsg frame;
  Serialization::ProcMgrPackHeartMsg(heart, frame);
  const Result result = ResultOf(NexioSendRequest(fd, RequestOf(frame)), "send");
  if (result == Result::kOk) {
    ++heartIndex_;
  }
  return result;
}

Result ManagerLink::ResultOf(int code, const char* what) {
  switch (code) {
    case kNexioBusy:
      return Result::kBusy;
    case kNexioTimeout:
      return Result::kTimeout;
    case kNexioBroken:
    case kNexioBadFd: {
      const MutexLock lock(mutex_);
      return stopped_ ? Result::kStopped : Result::kDisconnected;
    }
    default:
      break;
  }
  if (code < 0) {
    LogError("ProcMgrAgent : %s failed, err code=%d", what, code);
    return Result::kSystemError;
  }
  return Result::kOk;
}

bool ManagerLink::InCallback() {
  const MutexLock lock(mutex_);
  return telling_ && teller_ == std::this_thread::get_id();
}

void ManagerLink::SetChannel(int fd) {
  for (PendingQuery* const query : queries_) {
    if (!query->done) {
      query->done = true;
      query->result = stopped_ ? Result::kStopped : Result::kDisconnected;
    }
  }
  channel_ = fd;
  changed_.NotifyAll();
}

}  // namespace ProcMgr
