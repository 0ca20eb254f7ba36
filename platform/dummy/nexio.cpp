#include "message/nexio.h"

#include <cerrno>

namespace ProcMgr {

int NexioOpen(const NexioOpenParam& param) {
  return param.peerName == nullptr ? kNexioBadName : kNexioTimeout;
}

int NexioCreateServer(const NexioServerParam& /*param*/) {
  return -ENOSYS;
}

int NexioClearName(const char* /*name*/, uid_t /*uid*/, gid_t /*gid*/) {
  return 0;
}

int NexioSendRequest(int /*fd*/, const NexioRequest& /*request*/) {
  return kNexioBadFd;
}

int NexioSendResponse(int /*fd*/, const NexioResponse& /*response*/) {
  return kNexioBadFd;
}

int NexioRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/) {
  return kNexioBadFd;
}

int NexioTimedRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/,
                      std::uint32_t /*timeoutMs*/) {
  return kNexioBadFd;
}

int NexioClosePipe(int /*fd*/) {
  return kNexioBadFd;
}

int NexioGetPeer(int /*fd*/, NexioPeer& /*out*/) {
  return kNexioBadFd;
}

}  // namespace ProcMgr
