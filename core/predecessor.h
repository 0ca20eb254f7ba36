// Another process-manager on this machine: one that runs is left alone, one that was killed may
// have left its services.
#ifndef CORE_PREDECESSOR_H
#define CORE_PREDECESSOR_H

#include <vector>

#include "app/manifest.h"

namespace ProcMgr {

// Makes this process the machine's only manager, to its end; a child never is. The services are
// told which process it is (base/manager_pid.h). False, with an error line and a text on standard
// error: another one runs. A machine without a writable /run has no such check and goes on, with a
// warning. Once, before anything is started.
[[nodiscard]] bool BecomeOnlyManager();

// Warns of each process that an earlier manager of this machine's boot has left running under the
// program of a base service, which neither ends it nor supervises it. Main thread, before the first
// base service is started.
void TellOrphans(const std::vector<ApplicationManifest>& baseServices);

}  // namespace ProcMgr

#endif  // CORE_PREDECESSOR_H
