#include "message/outbox.h"

#include <algorithm>

#include "message/nexio.h"

namespace ProcMgr {
namespace {

int TryFrame(int fd, bool isResponse, std::uint32_t seq, std::string_view frame) {
  if (!isResponse) {
    NexioRequest request;
    request.data = frame.data();
    request.size = static_cast<std::uint32_t>(frame.size());
    return NexioSendRequest(fd, request);
  }
  // The library only reads it; a response record has room for what comes in, too.
  std::string text(frame);
  NexioResponse response;
  response.seq = seq;
  response.data = text.data();
  response.size = static_cast<std::uint32_t>(text.size());
  return NexioSendResponse(fd, response);
}

}  // namespace

int Outbox::Send(int fd, const OutgoingMessage& message, SendOutcome outcome) {
  int result = 0;
  {
    const MutexLock lock(mutex_);
    std::size_t sent = 0;
    if (!channels_.contains(fd)) {
      while (sent < message.frames.size() && result >= 0) {
        result = TryFrame(fd, message.isResponse, message.seq, message.frames[sent]);
        sent += result >= 0 ? 1 : 0;
      }
    } else {
      result = kNexioBusy;
    }
    if (result == kNexioBusy && Keep(fd, message, sent, outcome)) {
      return kWaits;
    }
  }
  result = std::min(result, 0);
  outcome(result);
  return result;
}

bool Outbox::Keep(int fd, const OutgoingMessage& message, std::size_t first, SendOutcome& outcome) {
  Waiting waiting;
  for (std::size_t i = first; i < message.frames.size(); ++i) {
    waiting.frames.emplace_back(message.frames[i]);
    waiting.bytes += message.frames[i].size();
  }
  const auto found = channels_.find(fd);
  const std::size_t before = found == channels_.end() ? 0 : found->second.bytes;
  // One alone may be as long as it takes: the state of thousands of applications, say.
  if (before != 0 && before + waiting.bytes > kMaxBytes) {
    return false;
  }
  waiting.isResponse = message.isResponse;
  waiting.seq = message.seq;
  // The first of a channel comes here from its first try.
  waiting.tries = found == channels_.end() ? 1 : 0;
  Channel& channel = channels_[fd];
  channel.bytes += waiting.bytes;
  waiting.outcome = std::move(outcome);
  channel.waiting.push_back(std::move(waiting));
  return true;
}

bool Outbox::TryWaiting() {
  Known known;
  {
    const MutexLock lock(mutex_);
    for (auto& [fd, channel] : channels_) {
      TryChannel(fd, channel, known);
    }
  }
  // A channel with nothing left stands meanwhile: what is sent now goes behind it, and so its
  // outcome is told behind these.
  for (const auto& [outcome, result] : known) {
    outcome(result);
  }
  const MutexLock lock(mutex_);
  std::erase_if(channels_, [](const auto& entry) { return entry.second.waiting.empty(); });
  return !channels_.empty();
}

void Outbox::TryChannel(int fd, Channel& channel, Known& known) {
  while (!channel.waiting.empty()) {
    Waiting& first = channel.waiting.front();
    const int result = TryFrame(fd, first.isResponse, first.seq, first.frames.front());
    if (result == kNexioBusy) {
      if (++first.tries < kTries && !channel.hasGivenUp) {
        return;
      }
      channel.hasGivenUp = true;
      EndFirst(channel, result, known);
    } else if (result < 0) {
      EndFirst(channel, result, known);
    } else {
      channel.hasGivenUp = false;
      first.tries = 0;
      first.frames.pop_front();
      if (first.frames.empty()) {
        EndFirst(channel, 0, known);
      }
    }
  }
}

void Outbox::EndFirst(Channel& channel, int result, Known& known) {
  Waiting& first = channel.waiting.front();
  known.emplace_back(std::move(first.outcome), result);
  channel.bytes -= first.bytes;
  channel.waiting.pop_front();
}

}  // namespace ProcMgr
