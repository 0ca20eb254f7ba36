// The access manager's picture of every process of the platform, built from the manager's reports.
#ifndef TOOLS_IAMMGR_PICTURE_H
#define TOOLS_IAMMGR_PICTURE_H

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "message/request_msg.h"
#include "tools/iammgr/known_apps.h"

namespace Iammgr {

class Picture {
 public:
  explicit Picture(const std::string& baseFile) : known_(baseFile) {}

  // Any thread. `now` is the time of day that the changes get.
  void Apply(const std::vector<ProcMgr::Message::AppStateInfo>& changes, std::time_t now)
      EXCLUDES(mutex_);

  // {"processes": [{"name", "kind", "owner", "pid", "state", "since", "restarts"}...]} in the order
  // of the names, as one line. `owner` is null if it isn't known, `pid` if there is no process, and
  // `since` is in UTC.
  [[nodiscard]] std::string ToJson() const EXCLUDES(mutex_);

 private:
  enum class State : std::uint8_t { kStarting, kRunning, kTermTimeout, kEnded, kFailed };
  struct Entry {
    AppKind kind;
    pid_t pid = 0;
    State state = State::kStarting;
    std::time_t since = 0;       // When it got into that state, or was first heard of.
    std::uint32_t restarts = 0;  // Heard of, so counted from the start of the access manager.
  };

  static const char* StateWord(State state);
  static bool IsAlive(State state) { return state < State::kEnded; }

  void ApplyOne(const ProcMgr::Message::AppStateInfo& change, std::time_t now) REQUIRES(mutex_);
  static void Move(Entry& entry, State state, const ProcMgr::Message::AppStateInfo& change,
                   std::time_t now);
  // Drops the processes that have been gone longest, so that an owner that makes up new names
  // doesn't make the picture grow without end.
  void DropOldest() REQUIRES(mutex_);

  const KnownApps known_;
  mutable ProcMgr::Mutex mutex_;
  std::map<std::string, Entry> entries_ GUARDED_BY(mutex_);
  pid_t manager_ GUARDED_BY(mutex_) = 0;
};

}  // namespace Iammgr

#endif  // TOOLS_IAMMGR_PICTURE_H
