// What the stand-in of the platform library keeps: sensors, groups, and the files that show them.
#ifndef PLATFORM_PLAT_PLAT_RECORD_H
#define PLATFORM_PLAT_PLAT_RECORD_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "base/mutex.h"
#include "platform/plat/plat.h"

namespace ProcMgr {

// The results beside 0 and kPlatGrpExists.
inline constexpr std::uint32_t kPlatUnknown = 2;  // No such handle, or no such group.
inline constexpr std::int32_t kPlatNoProcess = 3;
inline constexpr std::int32_t kPlatInvalid = 22;

// One platform. Whoever it is told about can be looked at below `root`: sensor/NAME holds the last
// value of a sensor, group/NAME a line "PID VALUE" per admitted process. The files are for people
// and tests: a write that fails changes no result. Any thread.
class PlatRecord {
 public:
  explicit PlatRecord(std::string root);

  [[nodiscard]] std::uint32_t RegisterSensor(const std::string& name, std::uint64_t& handle)
      EXCLUDES(mutex_);
  std::uint32_t UnregisterSensor(std::uint64_t handle) EXCLUDES(mutex_);
  [[nodiscard]] std::uint32_t UpdateSensor(std::uint64_t handle, std::uint32_t value)
      EXCLUDES(mutex_);
  [[nodiscard]] std::int32_t CreateGroup(const std::string& name) EXCLUDES(mutex_);
  [[nodiscard]] std::int32_t AddProcess(const std::string& name, pid_t pid,
                                        std::uint32_t permission) EXCLUDES(mutex_);

 private:
  const std::string root_;

  Mutex mutex_;
  std::uint64_t lastHandle_ GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, std::string> sensors_ GUARDED_BY(mutex_);
  std::set<std::string> groups_ GUARDED_BY(mutex_);
};

// Reads the NUMA nodes of a list such as "0-1,3" into `info`: all of them in nodeCount, the first
// 64 in nodes. False, with `info` untouched, if it is no such list or counts above 4096 nodes. No
// lock.
[[nodiscard]] bool ParseNodeList(const std::string& text, PlatMemInfo& info);

}  // namespace ProcMgr

#endif  // PLATFORM_PLAT_PLAT_RECORD_H
