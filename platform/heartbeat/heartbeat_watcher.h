// The thread that listens for beats.
#ifndef PLATFORM_HEARTBEAT_HEARTBEAT_WATCHER_H
#define PLATFORM_HEARTBEAT_HEARTBEAT_WATCHER_H

#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "platform/heartbeat/heartbeat_table.h"
#include "platform/heartbeat/socket_access.h"

namespace ProcMgr::HeartBeat {

// Listens at one socket path. Any thread may call, except as said below.
class Watcher {
 public:
  Watcher(std::string path, Limits limits);
  // Ends the thread and waits for a notification that is under way. Not from a notification, and
  // not under a lock that a notification takes.
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // Binds the socket and starts the thread; once. A socket file that nobody serves is replaced.
  // Yields 0 or an errno.
  [[nodiscard]] int Start();

  // Neither waits for a notification. Register admits the group to the socket; a group stays
  // admitted when its registration ends.
  void Register(std::string_view name, gid_t gid, HeartBeatNotify notify) EXCLUDES(mutex_);
  void Unregister(std::string_view name) EXCLUDES(mutex_);

  // As Table::LastBeat.
  [[nodiscard]] std::optional<SteadyTime> LastBeat(std::string_view name) EXCLUDES(mutex_);

  // Removes the socket file, so that another watcher can be started at the path.
  void Retract();

 private:
  void ThreadBody() noexcept;
  void WaitForWork() EXCLUDES(mutex_);
  [[nodiscard]] std::vector<News> HearAndExpire() EXCLUDES(mutex_);
  // Takes one beat off the socket; false if there is none.
  bool HearOne(std::vector<News>& news) EXCLUDES(mutex_);
  void Tell(const std::vector<News>& news) EXCLUDES(mutex_);

  // Constant after Start.
  const std::string path_;
  UniqueFd socket_;
  UniqueFd wake_;  // Readable: there is a new deadline, or it is time to end.
  std::thread thread_;

  // A leaf, never held during a notification.
  Mutex mutex_;
  Table table_ GUARDED_BY(mutex_);
  SocketAccess access_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace ProcMgr::HeartBeat

#endif  // PLATFORM_HEARTBEAT_HEARTBEAT_WATCHER_H
