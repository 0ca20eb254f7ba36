// Who promised to beat and who did: the rules of the heartbeat library, without clock or socket.
#ifndef PLATFORM_HEARTBEAT_HEARTBEAT_TABLE_H
#define PLATFORM_HEARTBEAT_HEARTBEAT_TABLE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/steady_time.h"
#include "platform/heartbeat/heartbeat.h"

namespace ProcMgr::HeartBeat {

inline constexpr std::size_t kMaxName = 64;

struct Limits {
  std::chrono::milliseconds silence{2000};    // Without a beat: lost.
  std::chrono::milliseconds firstBeat{5000};  // Without a first beat after the registration: lost.
};

// A loss or a recovery that is to be told.
struct News {
  std::string name;
  pid_t pid = 0;
  std::uint32_t status = kHeartBeatLost;
  HeartBeatNotify notify = nullptr;
  std::uint64_t registration = 0;
};

enum class BeatResult {
  kCounted,
  kUnknown,       // Nobody registered the name.
  kStranger,      // The sender has another group.
  kStrangerAnew,  // The same, for the first time since the registration.
};

// Not thread-safe. Times never go backwards from call to call.
class Table {
 public:
  explicit Table(Limits limits) : limits_(limits) {}

  // A second registration of a name begins anew. `name` has 1 to kMaxName bytes.
  void Register(std::string_view name, gid_t gid, HeartBeatNotify notify, SteadyTime now);
  void Unregister(std::string_view name);

  // Enters a beat and appends the recovery to `news` if it is one.
  BeatResult Beat(std::string_view name, gid_t gid, pid_t pid, SteadyTime now,
                  std::vector<News>& news);

  // When the last beat of `name` came; none before the first since the registration.
  [[nodiscard]] std::optional<SteadyTime> LastBeat(std::string_view name) const;

  // Appends every loss whose time has come to `news`.
  void Expire(SteadyTime now, std::vector<News>& news);

  // When to call Expire next; it may find nothing then. None if nothing can be lost.
  [[nodiscard]] std::optional<SteadyTime> NextCheck() const { return nextCheck_; }

  // Forgives `deafness`, a time up to `now` during which beats couldn't be heard.
  void Excuse(std::chrono::nanoseconds deafness, SteadyTime now);

  // The look at `now` comes later than NextCheck has asked for: perhaps nobody could beat
  // meanwhile. Whoever's time is up gets half of it again, once until its next beat.
  void Spare(SteadyTime now);

  // False if the registration that `news` comes from is over.
  [[nodiscard]] bool IsCurrent(const News& news) const;

 private:
  struct Entry {
    gid_t gid = 0;
    HeartBeatNotify notify = nullptr;
    std::uint64_t registration = 0;
    SteadyTime heard;                  // The last beat, or the registration.
    std::optional<SteadyTime> spared;  // Until when, since then.
    pid_t pid = 0;                     // Of the last beat.
    bool hasBeaten = false;
    bool isLost = false;
    bool metStranger = false;
  };

  [[nodiscard]] std::chrono::milliseconds Patience(const Entry& entry) const;
  [[nodiscard]] SteadyTime Deadline(const Entry& entry) const;
  void CheckBy(SteadyTime when);

  const Limits limits_;
  std::uint64_t registrations_ = 0;
  std::map<std::string, Entry, std::less<>> entries_;
  // No deadline is earlier. Beats push deadlines back without moving it, so that a beat costs no
  // walk over the entries; the check that comes too early finds the next one.
  std::optional<SteadyTime> nextCheck_;
};

}  // namespace ProcMgr::HeartBeat

#endif  // PLATFORM_HEARTBEAT_HEARTBEAT_TABLE_H
