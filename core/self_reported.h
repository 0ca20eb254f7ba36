// Processes that the manager didn't start and that announced themselves at the upload service.
#ifndef CORE_SELF_REPORTED_H
#define CORE_SELF_REPORTED_H

#include "core/app_lists.h"
#include "core/reporter.h"

namespace ProcMgr {

// Opens the upload service. Its threads report through `reporter`, which must outlive them. Yields
// false if it can't be opened.
[[nodiscard]] bool StartUploadService(Reporter& reporter);

// Drops those that have gone, and reports them; and, without a report, those under whose names an
// application was started since. Check thread.
void CheckPmUploadApps(Reporter& reporter)
    EXCLUDES(pmUploadMutex_, generalAppMutex_, baseAppMutex_);

}  // namespace ProcMgr

#endif  // CORE_SELF_REPORTED_H
