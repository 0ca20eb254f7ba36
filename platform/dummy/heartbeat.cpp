#include "platform/heartbeat/heartbeat.h"

#include <cerrno>

namespace ProcMgr {

int RegisterCheckHeartBeat(const char* /*name*/, std::size_t /*length*/, gid_t /*gid*/,
                           HeartBeatNotify /*notify*/) {
  return ENOSYS;
}

void UnregisterCheckHeartBeat(const char* /*name*/, std::size_t /*length*/) {}

int GetHeartBeatAge(const char* /*name*/, std::size_t /*length*/, std::uint64_t& /*ageMs*/) {
  return ENOSYS;
}

void DisableAllCheckHeartBeat() {}

}  // namespace ProcMgr
