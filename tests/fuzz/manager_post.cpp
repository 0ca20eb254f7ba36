#include "tests/fuzz/manager_post.h"

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "base/immortal.h"
#include "message/name_table.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/nexio_stage.h"

namespace PmTest {

using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;
using ProcMgr::Serialization::PieceList;

Post::Post(ManagerStage& stage) : stage_(stage) {
  Stage().onOpen = [this](const ProcMgr::NexioOpenParam& param) { return Open(param); };
  Stage().onSend = [this](int fd, std::uint32_t seq, std::string_view frame) {
    return Send(fd, seq, frame);
  };
  Stage().onClose = [this](int fd) { return Close(fd); };
  stage_.onSending = [this](int fd, PieceList& pieces, ProcMgr::SendOutcome outcome) {
    NoteReport(fd, pieces);
    std::vector<Number> numbers;
    for (RequestMsg& frame : pieces) {
      frame.reserved = ++lastNumber_;
      numbers.push_back(lastNumber_);
    }
    return Queue(fd, std::move(numbers), std::move(outcome));
  };
  stage_.onResponding = [this](int fd, std::uint32_t seq, std::string_view text,
                               ProcMgr::SendOutcome outcome) {
    Require(!text.empty());
    responses.emplace_back(fd, seq);
    return Queue(fd, {kResponse + seq}, std::move(outcome));
  };
}

Post::~Post() {
  Stage() = {};
}

int Post::Open(const ProcMgr::NexioOpenParam& param) {
  pollfd cancel{param.cancelFd, POLLIN, 0};
  if (poll(&cancel, 1, 0) > 0) {
    return ProcMgr::kNexioBroken;
  }
  if (opening != 0) {
    return opening;
  }
  // The process for which the opening was begun is still there, or its end isn't known yet.
  Require(std::any_of(stage_.children.begin(), stage_.children.end(), [&param](const auto& child) {
    return child.second.name == param.peerName && child.second.state != ChildState::kReaped;
  }));
  ++lastFd_;
  Stage().open.insert(lastFd_);
  peers[lastFd_].name = param.peerName;
  peers[lastFd_].callback = param.requestCallback;
  return lastFd_;
}

int Post::Close(int fd) {
  Peer& peer = peers.at(fd);
  if (peer.begun.has_value()) {
    peer.isClosing = true;
    return ProcMgr::kNexioCallback;
  }
  peers.erase(fd);
  return 0;
}

std::uint32_t Post::Deliver(int fd, const ProcMgr::NexioRequestCallback& callback,
                            const std::string* packet) {
  const ProcMgr::NexioRequestCallback own = callback;  // The peer may go meanwhile.
  ProcMgr::NexioRequest request;
  if (packet != nullptr) {
    request = {++lastSeq_, packet->data(), static_cast<std::uint32_t>(packet->size())};
  }
  stage_.isCallback = true;
  own(fd, packet == nullptr ? nullptr : &request);
  stage_.isCallback = false;
  return request.seq;
}

// Its frames are the next that may come through the channel, but for those of messages that fail.
int Post::Send(int fd, std::uint32_t seq, std::string_view frame) {
  const auto peer = peers.find(fd);
  if (peer == peers.end()) {
    return ProcMgr::kNexioBadFd;
  }
  if (peer->second.answer < 0) {
    return peer->second.answer;
  }
  Number number = kResponse + seq;
  if (seq == 0) {
    RequestMsg whole;
    Require(frame.size() == sizeof(whole));
    std::memcpy(&whole, frame.data(), sizeof(whole));
    number = whole.reserved;
  }
  std::deque<Number>& queue = queued_[fd];
  while (!queue.empty() && queue.front() != number) {
    queue.pop_front();
  }
  Require(!queue.empty());
  queue.pop_front();
  sent_.insert(number);
  return 0;
}

ProcMgr::SendOutcome Post::Queue(int fd, std::vector<Number> numbers,
                                 ProcMgr::SendOutcome outcome) {
  Require(peers.contains(fd));
  Require(!ProcMgr::Immortal<ProcMgr::NameTable>().IsClosing(fd));
  Require(!numbers.empty());
  queued_[fd].insert(queued_[fd].end(), numbers.begin(), numbers.end());
  ++untold_;
  return [this, numbers = std::move(numbers), outcome = std::move(outcome),
          isTold = std::make_shared<bool>(false)](int result) {
    Require(!std::exchange(*isTold, true));
    --untold_;
    const bool isSent = std::all_of(numbers.begin(), numbers.end(),
                                    [this](Number number) { return sent_.contains(number); });
    Require(isSent == (result == 0));
    outcome(result);
  };
}

void Post::NoteReport(int fd, const PieceList& pieces) {
  for (const RequestMsg& frame : pieces) {
    Report report;
    report.fd = fd;
    if (frame.type == RequestType::APP_DETAIL_STATUS_REPORT) {
      Require(ProcMgr::Serialization::ProcMgrUnpackAppDetailStatus(&frame, report.status));
      Require(!report.status.empty());
    } else {
      Require(frame.type == RequestType::APP_STATE_REPORT);
      ProcMgr::Serialization::ProcMgrUnpackedAppStateRequest(&frame, report.states);
      Require(!report.states.empty());
    }
    reports.push_back(std::move(report));
  }
}

void Post::Forget() {
  reports.clear();
  responses.clear();
}

std::ptrdiff_t Post::CountStates(int fd, const std::string& app) const {
  std::ptrdiff_t count = 0;
  for (const Report& report : reports) {
    count += report.fd == fd
                 ? std::count_if(report.states.begin(), report.states.end(),
                                 [&app](const auto& state) { return state.appName == app; })
                 : 0;
  }
  return count;
}

}  // namespace PmTest
