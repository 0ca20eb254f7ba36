// The interface of the heartbeat library: it watches services that promise to beat.
#ifndef PLATFORM_HEARTBEAT_HEARTBEAT_H
#define PLATFORM_HEARTBEAT_HEARTBEAT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace ProcMgr {

inline constexpr std::uint32_t kHeartBeatRecovered = 0;
inline constexpr std::uint32_t kHeartBeatLost = 1;

// Told on a thread of the library, once per loss and once per recovery. `name` is zero-terminated
// and valid for the call; `pid` is that of the last beat, 0 before the first. Must not let an
// exception out. May take locks under which the caller calls RegisterCheckHeartBeat and
// UnregisterCheckHeartBeat: the library holds none of its own during the call.
using HeartBeatNotify = bool (*)(const char* name, std::size_t length, pid_t pid,
                                 std::uint32_t status);

// Watches `name` (1 to 64 bytes): a beat counts only from a sender with the group id `gid`. A
// second registration of a name replaces the first. Yields 0, or an errno. Never blocks. Any
// thread.
[[nodiscard]] int RegisterCheckHeartBeat(const char* name, std::size_t length, gid_t gid,
                                         HeartBeatNotify notify);

// Stops watching `name`; an unknown name does nothing. A notification that is under way may still
// end after the return. Never blocks. Any thread.
void UnregisterCheckHeartBeat(const char* name, std::size_t length);

// Tells in `ageMs` how many milliseconds ago the last beat of `name` came. Yields 0, or an errno
// with `ageMs` untouched: of a name that isn't watched, or hasn't beaten yet. Never blocks. Any
// thread.
[[nodiscard]] int GetHeartBeatAge(const char* name, std::size_t length, std::uint64_t& ageMs);

// Stops everything; no notification runs after the return. Not to be called from a notification.
void DisableAllCheckHeartBeat();

}  // namespace ProcMgr

#endif  // PLATFORM_HEARTBEAT_HEARTBEAT_H
