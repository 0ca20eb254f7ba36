// The environment of a forked child. Rules: app/child_main.h.
#ifndef APP_CHILD_ENV_H
#define APP_CHILD_ENV_H

#include <string>

#include "app/app_info.h"

namespace ProcMgr::App {

// Each changes the child's environment in a fixed order, in which what is set later wins,
// introduces the child to the access-management library on the way, and appends to `err` what
// failed.
void SetupBaseEnv(const BaseAppInfo& app, std::string& err);
void SetupGeneralEnv(const GeneralAppInfo& app, std::string& err);

}  // namespace ProcMgr::App

#endif  // APP_CHILD_ENV_H
