#include "tests/fuzz/nexio_stage.h"

namespace PmTest {
namespace {

int Send(int fd, std::uint32_t seq, const void* data, std::uint32_t size) {
  return Stage().onSend ? Stage().onSend(fd, seq, {static_cast<const char*>(data), size})
                        : ProcMgr::kNexioBroken;
}

}  // namespace

NexioStage& Stage() {
  static NexioStage stage;
  return stage;
}

}  // namespace PmTest

namespace ProcMgr {

using PmTest::NexioStage;
using PmTest::Stage;

int NexioOpen(const NexioOpenParam& param) {
  return Stage().onOpen ? Stage().onOpen(param) : kNexioBroken;
}

int NexioCreateServer(const NexioServerParam& param) {
  Stage().connect = param.connectCallback;
  Stage().request = param.requestCallback;
  return NexioStage::kServer;
}

int NexioClearName(const char* /*name*/, uid_t /*uid*/, gid_t /*gid*/) {
  return 0;
}

int NexioSendRequest(int fd, const NexioRequest& request) {
  return PmTest::Send(fd, 0, request.data, request.size);
}

int NexioSendResponse(int fd, const NexioResponse& response) {
  return PmTest::Send(fd, response.seq, response.data, response.size);
}

int NexioRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/) {
  return kNexioBroken;
}

int NexioTimedRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/,
                      std::uint32_t /*timeoutMs*/) {
  return kNexioBroken;
}

int NexioGetPeer(int /*fd*/, NexioPeer& /*out*/) {
  return kNexioBadFd;
}

int NexioClosePipe(int fd) {
  if (fd == NexioStage::kServer) {
    return 0;
  }
  if (!Stage().open.contains(fd)) {
    return kNexioBadFd;
  }
  const int result = Stage().onClose ? Stage().onClose(fd) : 0;
  if (result >= 0) {
    Stage().open.erase(fd);
  }
  return result;
}

}  // namespace ProcMgr
