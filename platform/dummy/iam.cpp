#include "platform/iam/iam.h"

namespace ProcMgr {

int IAMInitProc(const AppConfig& config) {
  return config.appName.empty() || config.execPath.empty() ? -1 : 0;
}

bool IAMInitProcNeedsOwnMemory() {
  return true;
}

void IAMRetrieveService() {}

}  // namespace ProcMgr
