#include "tests/fuzz/agent_stage.h"

#include <cerrno>

#include "message/nexio.h"

namespace PmTest {

NexioStage& Stage() {
  static NexioStage stage;
  return stage;
}

}  // namespace PmTest

namespace ProcMgr {

using PmTest::Stage;

int NexioCreateServer(const NexioServerParam& param) {
  Stage().connect = param.connectCallback;
  Stage().request = param.requestCallback;
  return PmTest::NexioStage::kServer;
}

int NexioSendRequest(int /*fd*/, const NexioRequest& /*request*/) {
  return kNexioBroken;
}

int NexioSendResponse(int /*fd*/, const NexioResponse& /*response*/) {
  return kNexioBroken;
}

int NexioRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/) {
  return kNexioBroken;
}

int NexioTimedRPCSync(int /*fd*/, const NexioRequest& /*request*/, NexioResponse& /*response*/,
                      std::uint32_t /*timeoutMs*/) {
  return kNexioBroken;
}

int NexioClosePipe(int fd) {
  return Stage().open.erase(fd) != 0 || fd == PmTest::NexioStage::kServer ? 0 : kNexioBadFd;
}

}  // namespace ProcMgr
