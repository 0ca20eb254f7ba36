// The continue signal, which ends the wait of a quick start.
#ifndef CORE_QUICK_START_H
#define CORE_QUICK_START_H

#include "core/stop_request.h"

namespace ProcMgr {

// Makes SIGCONT leave the continue flag and its time behind. Boot thread.
void InstallContinueHandler();

// In a quick start, waits up to 10 seconds for SIGCONT, or for a stop to be asked for, and ends the
// quick start either way. Main thread.
void WaitContinueSignal(const StopRequest& stop);

}  // namespace ProcMgr

#endif  // CORE_QUICK_START_H
