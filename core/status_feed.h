// What the engine tells the manager's memory (status/memory.h) of manifests and records.
#ifndef CORE_STATUS_FEED_H
#define CORE_STATUS_FEED_H

#include <vector>

#include "app/app_info.h"
#include "app/manifest.h"
#include "status/memory.h"

namespace ProcMgr {

// The base-service file names it. Yields its number, the same each time. Any thread.
Status::AppId MentionBaseApp(const ApplicationManifest& manifest);
void MentionBaseApps(const std::vector<ApplicationManifest>& manifests);

// Somebody asks for the application: it is known from now on, with what the record says. Called
// with the record's lock held.
void MentionGeneralApp(App::GeneralAppInfo& app);

// A process has announced itself. Yields its number.
[[nodiscard]] Status::AppId MentionSelfReported(const std::string& name, const std::string& path,
                                                gid_t gid, pid_t pid);

}  // namespace ProcMgr

#endif  // CORE_STATUS_FEED_H
