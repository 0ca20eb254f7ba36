// What comes to a link: the manager's connections and frames, and what the service is told of them.
#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "agent/manager_link.h"
#include "core/log.h"
#include "message/nexio.h"

namespace ProcMgr {
namespace {

Agent::StatusMap StatusOf(const std::map<std::string, int>& numbers) {
  Agent::StatusMap status;
  for (const auto& [name, number] : numbers) {
    status.emplace(name, static_cast<AppStatus>(number));
  }
  return status;
}

// True if the report is about exactly these names, which are sorted as the report is.
bool AreNames(const std::vector<std::string>& names, const Agent::StatusMap& status) {
  return std::equal(names.begin(), names.end(), status.begin(), status.end(),
                    [](const std::string& name, const auto& entry) { return name == entry.first; });
}

}  // namespace

void ManagerLink::OnConnect(int fd) {
  int old = 0;
  bool stopped = false;
  std::optional<ServiceState> state;
  std::uint64_t count = 0;
  {
    // What is to be repeated is taken with the channel's coming: a first report that waits for it
    // must not be sent twice.
    const MutexLock lock(mutex_);
    stopped = stopped_;
    if (!stopped) {
      old = channel_;
      state = lastState_;
      count = stateCount_;
      SetChannel(fd);
    }
  }
  if (stopped) {
    return;  // Stop closes the server with all its connections.
  }
  if (old > 0) {
    // If a callback of the old one is running, it closes the old one on its way out.
    (void)NexioClosePipe(old);
  }
  if (state.has_value()) {
    RepeatState(fd, *state, count);
  }
  TellChannel();
}

void ManagerLink::OnRequest(int fd, const NexioRequest* request) {
  if (request == nullptr) {
    OnBroken(fd);
    return;
  }
  if (request->size == sizeof(Message::RequestMsg) && request->data != nullptr) {
    Message::RequestMsg frame;
    std::memcpy(&frame, request->data, sizeof(frame));
    OnFrame(fd, frame);
  } else {
    LogError("ProcMgrAgent : packet dropped, size=%u bytes, a frame has %zu", request->size,
             sizeof(Message::RequestMsg));
  }
  bool forgotten = false;
  {
    const MutexLock lock(mutex_);
    forgotten = channel_ != fd && !stopped_;
  }
  if (forgotten) {
    (void)NexioClosePipe(fd);
  }
}

void ManagerLink::OnBroken(int fd) {
  {
    const MutexLock lock(mutex_);
    if (channel_ == fd) {
      SetChannel(0);
    }
  }
  // Possible inside its own callback; a forgotten one may be closed already.
  (void)NexioClosePipe(fd);
  TellChannel();
}

void ManagerLink::OnFrame(int fd, const Message::RequestMsg& frame) {
  switch (frame.type) {
    case Message::RequestType::APP_STATE_REPORT:
      OnAppStates(fd, frame);
      break;
    case Message::RequestType::APP_DETAIL_STATUS_REPORT:
      OnAppStatus(fd, frame);
      break;
    default:
      // A newer manager may tell more than this library knows.
      LogDebug("ProcMgrAgent : frame ignored, type=%u", static_cast<std::uint32_t>(frame.type));
      break;
  }
}

void ManagerLink::OnAppStates(int fd, const Message::RequestMsg& frame) {
  std::vector<Message::AppStateInfo> changes;
  Serialization::ProcMgrUnpackedAppStateRequest(&frame, changes);
  if (!changes.empty() && callbacks_.appStates) {
    TellReport(fd, [this, &changes] { callbacks_.appStates(changes); });
  }
}

void ManagerLink::OnAppStatus(int fd, const Message::RequestMsg& frame) {
  std::map<std::string, int> numbers;
  if (!Serialization::ProcMgrUnpackAppDetailStatus(&frame, numbers)) {
    LogError("ProcMgrAgent : status report dropped, its body breaks off, size=%lu", frame.size);
    return;
  }
  Agent::StatusMap status = StatusOf(numbers);
  {
    const MutexLock lock(mutex_);
    if (AnswerQuery(fd, status)) {
      return;
    }
  }
  if (callbacks_.appStatus) {
    TellReport(fd, [this, &status] { callbacks_.appStatus(status); });
  }
}

bool ManagerLink::AnswerQuery(int fd, Agent::StatusMap& status) {
  const auto found =
      std::find_if(queries_.begin(), queries_.end(), [fd, &status](const PendingQuery* query) {
        return !query->done && query->fd == fd && AreNames(*query->names, status);
      });
  if (found == queries_.end()) {
    return false;
  }
  (*found)->status.swap(status);
  (*found)->done = true;
  changed_.NotifyAll();
  return true;
}

bool ManagerLink::TakeTurn() {
  while (telling_ && !stopped_) {
    changed_.Wait(mutex_);
  }
  if (stopped_) {
    return false;
  }
  telling_ = true;
  teller_ = std::this_thread::get_id();
  return true;
}

void ManagerLink::GiveTurn() {
  telling_ = false;
  changed_.NotifyAll();
}

void ManagerLink::Tell(const std::function<void()>& call) {
  mutex_.Unlock();
  try {
    call();
  } catch (const std::exception& e) {
    LogError("ProcMgrAgent : a callback of the service threw: %s", e.what());
  } catch (...) {
    LogError("ProcMgrAgent : a callback of the service threw");
  }
  mutex_.Lock();
}

void ManagerLink::TellReport(int fd, const std::function<void()>& call) {
  const MutexLock lock(mutex_);
  if (!TakeTurn()) {
    return;
  }
  if (channel_ == fd) {
    Tell(call);
  }
  GiveTurn();
}

void ManagerLink::TellChannel() {
  const MutexLock lock(mutex_);
  if (!TakeTurn()) {
    return;
  }
  if (toldChannel_ != channel_) {
    toldChannel_ = channel_;
    const std::function<void()>& call =
        channel_ > 0 ? callbacks_.connected : callbacks_.disconnected;
    if (call) {
      Tell(call);
    }
  }
  GiveTurn();
}

}  // namespace ProcMgr
