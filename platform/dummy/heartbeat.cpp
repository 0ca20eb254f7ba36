#include "platform/heartbeat/heartbeat.h"

#include <cerrno>

namespace ProcMgr {

int RegisterCheckHeartBeat(const char* /*name*/, std::size_t /*length*/, gid_t /*gid*/,
                           HeartBeatNotify /*notify*/) {
  return ENOSYS;
}

void UnregisterCheckHeartBeat(const char* /*name*/, std::size_t /*length*/) {}

void DisableAllCheckHeartBeat() {}

}  // namespace ProcMgr
