// One connection of the status service: the lines that come in, the answers that go out.
#ifndef STATUS_STATUS_CLIENT_H
#define STATUS_STATUS_CLIENT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr::Status {

// For the service's thread alone. Nothing waits. Once IsOver it is to be destroyed, and takes and
// gives nothing any more.
class StatusClient {
 public:
  // The longest line, without its newline, and the answers that may lie unread, in bytes.
  static constexpr std::size_t kLongestLine = 4096;
  static constexpr std::size_t kMostUnread = std::size_t{1} << 20;
  // From the connection to its first whole line; and how long more than kMostUnread, which one
  // answer alone can be, may lie without being read on.
  static constexpr std::chrono::seconds kPatience{10};

  StatusClient(UniqueFd fd, SteadyTime now);

  [[nodiscard]] int Fd() const { return fd_.Get(); }
  // What poll is to look for.
  [[nodiscard]] short Events() const;
  // When it is to be looked at again, whether or not anything has come.
  [[nodiscard]] std::optional<SteadyTime> Deadline() const { return deadline_; }
  [[nodiscard]] bool IsOver(SteadyTime now) const;
  // A whole line waits.
  [[nodiscard]] bool HasLine() const { return in_.find('\n') != std::string::npos; }

  // Reads what has come, as far as there is room for a line. `events`: what poll has found.
  void Take(short events);
  // The next whole line; none if there is none.
  [[nodiscard]] std::optional<std::string> NextLine();
  // Sends `line`, or what the peer has room for, and keeps the rest.
  void Give(std::string_view line, SteadyTime now);
  void SendOn(SteadyTime now);

  bool isWatching = false;

 private:
  [[nodiscard]] std::size_t Unread() const { return out_.size() - sent_; }

  UniqueFd fd_;
  std::string in_;
  std::string out_;
  std::size_t sent_ = 0;  // Of out_.
  std::optional<SteadyTime> deadline_;
  bool hasAsked_ = false;
  bool isEnded_ = false;   // The peer sends nothing more, but may still read.
  bool isBroken_ = false;  // It is gone, or has broken a rule.
};

}  // namespace ProcMgr::Status

#endif  // STATUS_STATUS_CLIENT_H
