// A client of the status service, raw: it can say anything, and read or not.
#ifndef TESTS_SUPPORT_STATUS_PEER_H
#define TESTS_SUPPORT_STATUS_PEER_H

#include <poll.h>

#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "sandbox/wait.h"
#include "tests/support/test.h"

namespace PmTest {

class StatusPeer {
 public:
  // Connects, if it can.
  explicit StatusPeer(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const ProcMgr::UnixAddress address(path);
    if (connect(fd_.Get(), address.Get(), address.Size()) != 0) {
      error_ = errno;
    }
  }

  // 0, or the errno of the connection.
  [[nodiscard]] int Error() const { return error_; }
  [[nodiscard]] int Fd() const { return fd_.Get(); }

  // False if the service has closed. Never waits: what there is no room for is lost.
  bool Send(std::string_view text) const {
    const ssize_t size = send(fd_.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return size >= 0 || errno == EAGAIN;
  }

  // The next whole line; none if the service closes, or `patience` passes, first.
  [[nodiscard]] std::optional<std::string> ReadLine(milliseconds patience = PmSandbox::kPatience) {
    const auto deadline = ProcMgr::SteadyNow() + patience;
    while (in_.find('\n') == std::string::npos) {
      if (!ReadMore(deadline)) {
        return std::nullopt;
      }
    }
    const std::size_t end = in_.find('\n');
    std::string line = in_.substr(0, end);
    in_.erase(0, end + 1);
    return line;
  }

  // The next answer; null if none comes.
  [[nodiscard]] nlohmann::json ReadAnswer() {
    const std::optional<std::string> line = ReadLine();
    return line ? nlohmann::json::parse(*line) : nlohmann::json();
  }
  [[nodiscard]] nlohmann::json Ask(const std::string& request) {
    return Send(request + "\n") ? ReadAnswer() : nlohmann::json();
  }

  // Waits until the service has closed, and drops what comes before that.
  [[nodiscard]] bool AwaitClosed(milliseconds patience = PmSandbox::kPatience) {
    const auto deadline = ProcMgr::SteadyNow() + patience;
    while (ReadMore(deadline)) {
      in_.clear();
    }
    return isClosed_;
  }
  // The same for one that doesn't read.
  [[nodiscard]] bool AwaitHangUp(milliseconds patience = PmSandbox::kPatience) const {
    pollfd polled{fd_.Get(), 0, 0};
    return poll(&polled, 1, static_cast<int>(patience.count())) == 1 &&
           (polled.revents & POLLHUP) != 0;
  }

 private:
  bool ReadMore(ProcMgr::SteadyTime deadline) {
    pollfd polled{fd_.Get(), POLLIN, 0};
    if (poll(&polled, 1, ProcMgr::MillisecondsUntil(deadline)) != 1) {
      return false;
    }
    std::array<char, 65536> buffer{};
    const ssize_t size = recv(fd_.Get(), buffer.data(), buffer.size(), 0);
    isClosed_ = size <= 0;
    in_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return size > 0;
  }

  ProcMgr::UniqueFd fd_;
  int error_ = 0;
  bool isClosed_ = false;
  std::string in_;
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_STATUS_PEER_H
