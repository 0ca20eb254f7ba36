// The orderly stop: what the manager has started ends in the reverse order of the boot.
//
// Nothing is started any more from the request on. The general applications are asked to end all at
// once; then the base services, level by level: a service before what it depends on. Who hasn't
// ended when its time is up, or when the stop has become urgent, is killed. The reaper and the
// check pass must go on meanwhile: every end is filed, told and reported as ever.
#ifndef CORE_ORDERLY_STOP_H
#define CORE_ORDERLY_STOP_H

#include "core/app_lists.h"
#include "core/bring_up_handshake.h"
#include "core/stop_request.h"

namespace ProcMgr {

// Asks for the stop, or for haste, and ends what the bring-up waits for in `handshake`. Signal
// thread.
void AskForStop(StopRequest& stop, BringUpHandshake& handshake);

// Returns when all have ended, or are past being waited for. Main thread, when the stop has been
// asked for and the bring-up is over.
void StopApplications(const StopRequest& stop, BringUpHandshake& handshake)
    EXCLUDES(generalAppMutex_, baseAppMutex_);

}  // namespace ProcMgr

#endif  // CORE_ORDERLY_STOP_H
