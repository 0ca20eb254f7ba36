// Looks after the heart messages of the agents: logs those that were lost, and those that took
// long.
#ifndef CORE_HEART_MESSAGES_H
#define CORE_HEART_MESSAGES_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "message/request_msg.h"

namespace ProcMgr {

class HeartMessages {
 public:
  // Yields the time in milliseconds, of the clock by which the agents stamp their messages.
  using Clock = std::function<std::uint64_t()>;

  explicit HeartMessages(Clock clock = &SteadyMs) : clock_(std::move(clock)) {}

  // To be called for every frame: the first one makes its sender known. Only a heart message can
  // lead to a line. Any thread.
  void CheckHeartMsg(const std::string& sender, const Message::RequestMsg& frame)
      EXCLUDES(heartMutex_);

 private:
  // What an agent's last heart message said.
  struct HeartInfo {
    std::uint64_t index = 0;
  };

  [[nodiscard]] static std::uint64_t SteadyMs();

  const Clock clock_;
  Mutex heartMutex_;
  std::map<std::string, HeartInfo> heartInfoMap_ GUARDED_BY(heartMutex_);
};

}  // namespace ProcMgr

#endif  // CORE_HEART_MESSAGES_H
