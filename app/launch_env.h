// The environment of an application, planned before its start.
#ifndef APP_LAUNCH_ENV_H
#define APP_LAUNCH_ENV_H

#include <string>

#include "app/app_info.h"
#include "base/environment.h"

namespace ProcMgr::App {

// What the access-management library sees when a child is introduced to it comes first; the rest is
// set behind it. Each part changes the environment in a fixed order, in which what is set later
// wins, and appends to `err` what failed.
void SetupBaseEnv(const BaseAppInfo& app, Environment& env, std::string& err);
void SetupBaseEnvBehindAccess(const BaseAppInfo& app, Environment& env, std::string& err);
void SetupGeneralEnv(const GeneralAppInfo& app, Environment& env, std::string& err);
void SetupGeneralEnvBehindAccess(const GeneralAppInfo& app, Environment& env, std::string& err);

}  // namespace ProcMgr::App

#endif  // APP_LAUNCH_ENV_H
