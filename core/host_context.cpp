#include "core/host_context.h"

namespace ProcMgr {

HostContext& HostContext::Instance() {
  static HostContext context;
  return context;
}

}  // namespace ProcMgr
