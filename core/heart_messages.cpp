#include "core/heart_messages.h"

#include <chrono>

#include "base/names.h"
#include "base/steady_time.h"
#include "core/log.h"
#include "message/serialization.h"

namespace ProcMgr {

std::uint64_t HeartMessages::SteadyMs() {
  const auto sinceBoot = SteadyNow().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(sinceBoot).count());
}

void HeartMessages::CheckHeartMsg(const std::string& sender, const Message::RequestMsg& frame) {
  constexpr std::uint64_t kDeliveryLimitMs = 50;
  if (sender == kAccessService) {
    return;
  }
  const MutexLock lock(heartMutex_);
  HeartInfo& heart = heartInfoMap_[sender];
  if (frame.type != Message::RequestType::HEART_MSG) {
    return;
  }
  Message::HeartMsg msg;
  Serialization::ProcMgrUnpackHeartMsg(&frame, msg);
  if (heart.index + 1 != msg.index) {
    LogWarning("PROCMGR : %s lost heart msg, index is %lu / %lu", sender.c_str(), heart.index,
               msg.index);
  }
  heart.index = msg.index;
  const std::uint64_t now = clock_();
  // Unsigned on purpose: a time to come is far too late as well.
  const std::uint64_t cost = now - msg.sendTimeMs;
  if (cost > kDeliveryLimitMs) {
    LogWarning("PROCMGR : %s send nexiom cost time %lu - %lu = %lu", sender.c_str(), now,
               msg.sendTimeMs, cost);
  }
}

}  // namespace ProcMgr
