#include "platform/heartbeat/heartbeat.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "base/immortal.h"
#include "base/mutex.h"
#include "core/log.h"
#include "platform/heartbeat/heartbeat_watcher.h"

namespace ProcMgr {
namespace {

constexpr const char* kSocketPath = "/run/heartbeat.sock";

// The watcher exists from the first registration to DisableAllCheckHeartBeat. Its thread takes
// nothing from here, so this lock can't be caught between a notification and its receiver's lock.
struct Process {
  Mutex mutex;
  std::unique_ptr<HeartBeat::Watcher> watcher GUARDED_BY(mutex);
};

bool IsName(const char* name, std::size_t length) {
  return name != nullptr && length > 0 && length <= HeartBeat::kMaxName;
}

}  // namespace

int RegisterCheckHeartBeat(const char* name, std::size_t length, gid_t gid,
                           HeartBeatNotify notify) {
  if (!IsName(name, length) || notify == nullptr) {
    return EINVAL;
  }
  auto& process = Immortal<Process>();
  const MutexLock lock(process.mutex);
  if (process.watcher == nullptr) {
    auto watcher = std::make_unique<HeartBeat::Watcher>(kSocketPath, HeartBeat::Limits{});
    if (const int error = watcher->Start(); error != 0) {
      LogError("HEARTBEAT : can't listen at %s, errno=%d", kSocketPath, error);
      return error;
    }
    process.watcher = std::move(watcher);
  }
  process.watcher->Register({name, length}, gid, notify);
  return 0;
}

void UnregisterCheckHeartBeat(const char* name, std::size_t length) {
  if (!IsName(name, length)) {
    return;
  }
  auto& process = Immortal<Process>();
  const MutexLock lock(process.mutex);
  if (process.watcher != nullptr) {
    process.watcher->Unregister({name, length});
  }
}

int GetHeartBeatAge(const char* name, std::size_t length, std::uint64_t& ageMs) {
  if (!IsName(name, length)) {
    return EINVAL;
  }
  auto& process = Immortal<Process>();
  const MutexLock lock(process.mutex);
  const auto beat =
      process.watcher == nullptr ? std::nullopt : process.watcher->LastBeat({name, length});
  if (!beat) {
    return ENOENT;
  }
  const auto age = std::chrono::floor<std::chrono::milliseconds>(SteadyNow() - *beat);
  ageMs = static_cast<std::uint64_t>(std::max<std::int64_t>(age.count(), 0));
  return 0;
}

void DisableAllCheckHeartBeat() {
  std::unique_ptr<HeartBeat::Watcher> watcher;
  {
    auto& process = Immortal<Process>();
    const MutexLock lock(process.mutex);
    watcher = std::move(process.watcher);
    if (watcher != nullptr) {
      watcher->Retract();
    }
  }
  // Ends here, without the lock: it waits for a notification, whose receiver may be registering.
}

}  // namespace ProcMgr
