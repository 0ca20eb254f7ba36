#include "status/status_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

namespace ProcMgr::Status {

StatusClient::StatusClient(UniqueFd fd, SteadyTime now)
    : fd_(std::move(fd)), deadline_(now + kPatience) {}

// A full input waits until its lines have been answered; so does the peer.
short StatusClient::Events() const {
  int events = 0;
  if (!isEnded_ && in_.size() <= kLongestLine) {
    events |= POLLIN;
  }
  if (Unread() != 0) {
    events |= POLLOUT;
  }
  return static_cast<short>(events);
}

bool StatusClient::IsOver(SteadyTime now) const {
  if (isBroken_ || (deadline_ && now >= *deadline_)) {
    return true;
  }
  return isEnded_ && !HasLine() && !isWatching && Unread() == 0;
}

void StatusClient::Take(short events) {
  if ((events & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    isBroken_ = true;  // It can't read an answer any more.
    return;
  }
  if ((events & POLLIN) == 0) {
    return;
  }
  std::array<char, kLongestLine + 1> buffer{};
  const ssize_t size = recv(fd_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size == 0) {
    isEnded_ = true;
  } else if (size > 0) {
    in_.append(buffer.data(), static_cast<std::size_t>(size));
    isBroken_ = in_.find('\n') == std::string::npos && in_.size() > kLongestLine;
  } else if (errno != EAGAIN && errno != EINTR) {
    isBroken_ = true;
  }
}

std::optional<std::string> StatusClient::NextLine() {
  const std::size_t end = in_.find('\n');
  if (isBroken_ || end == std::string::npos) {
    return std::nullopt;
  }
  if (end > kLongestLine) {
    isBroken_ = true;
    return std::nullopt;
  }
  std::string line = in_.substr(0, end);
  in_.erase(0, end + 1);
  isBroken_ = in_.size() > kLongestLine && in_.find('\n') == std::string::npos;
  if (!hasAsked_) {
    hasAsked_ = true;
    deadline_.reset();
  }
  return line;
}

void StatusClient::Give(std::string_view line, SteadyTime now) {
  if (isBroken_) {
    return;
  }
  if (Unread() >= kMostUnread) {
    isBroken_ = true;
    return;
  }
  out_.erase(0, std::exchange(sent_, 0));
  out_.append(line);
  if (out_.size() > kMostUnread) {
    deadline_ = now + kPatience;
  }
  SendOn(now);
}

void StatusClient::SendOn(SteadyTime now) {
  while (!isBroken_ && Unread() != 0) {
    const ssize_t size =
        send(fd_.Get(), out_.data() + sent_, Unread(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) {
      isBroken_ = errno != EAGAIN && errno != EINTR;
      return;
    }
    sent_ += static_cast<std::size_t>(size);
    deadline_ = Unread() > kMostUnread ? std::optional(now + kPatience) : std::nullopt;
  }
  out_ = {};
  sent_ = 0;
}

}  // namespace ProcMgr::Status
