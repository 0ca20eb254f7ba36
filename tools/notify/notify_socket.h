// The socket to which a command says what it is about.
//
// A datagram holds lines: READY=1, STOPPING=1, WATCHDOG=1; others are left alone, so that a program
// that tells more than that is understood. It counts from root, from the user that this process
// runs under, and from the command itself, whatever user that has become.
#ifndef TOOLS_NOTIFY_NOTIFY_SOCKET_H
#define TOOLS_NOTIFY_NOTIFY_SOCKET_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace Notify {

// What one or several datagrams have said.
struct Notices {
  enum class State { kReady, kStopping };
  std::optional<State> state;  // The last one.
  bool beat = false;
};

// Adds what the datagram says.
void ReadNotices(std::string_view datagram, Notices& notices);

// Removes its file at its end.
class NotifySocket {
 public:
  NotifySocket() = default;
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // Makes the socket for the service `name`, which nobody else may serve meanwhile. Yields 0 or
  // errno. To be called once.
  [[nodiscard]] int Open(const std::string& name);

  [[nodiscard]] const std::string& Path() const { return path_; }
  // Readable when something has been said.
  [[nodiscard]] int Fd() const { return fd_.Get(); }

  // Takes what has been said so far; of a flood the first part, so that it keeps nobody from his
  // work. Never blocks.
  [[nodiscard]] Notices Take(pid_t command) const;

 private:
  [[nodiscard]] int OpenIn(const std::string& folder, const std::string& name);

  ProcMgr::UniqueFd fd_;
  std::string path_;
  std::string folder_;  // Made for this socket alone; empty if there is none.
};

}  // namespace Notify

#endif  // TOOLS_NOTIFY_NOTIFY_SOCKET_H
