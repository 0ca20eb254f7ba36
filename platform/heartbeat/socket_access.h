// Who may write to a socket file: its owner, and the groups that were admitted.
#ifndef PLATFORM_HEARTBEAT_SOCKET_ACCESS_H
#define PLATFORM_HEARTBEAT_SOCKET_ACCESS_H

#include <sys/types.h>

#include <set>
#include <string>

namespace ProcMgr::HeartBeat {

// Datagrams of whoever may write lie in one short queue of the kernel's, before anybody can look at
// their senders: only the file's permissions keep strangers from filling it. Not thread-safe.
class SocketAccess {
 public:
  static constexpr mode_t kOwnerOnly = 0600;

  explicit SocketAccess(std::string path) : path_(std::move(path)) {}

  // Lets the members of `gid` write, by the file's access control list. Where the file system keeps
  // none, everybody may write from then on: the beats of a service count more than the queue.
  void Admit(gid_t gid);

 private:
  [[nodiscard]] bool WriteList() const;

  const std::string path_;
  std::set<gid_t> groups_;
};

}  // namespace ProcMgr::HeartBeat

#endif  // PLATFORM_HEARTBEAT_SOCKET_ACCESS_H
