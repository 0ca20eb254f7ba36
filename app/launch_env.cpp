#include "app/launch_env.h"

#include <map>

#include "app/share_groups.h"
#include "base/names.h"

namespace ProcMgr::App {
namespace {

// Appends "TEXTerrno=NUMBER;" if there is an error.
void Tell(int error, const std::string& text, std::string& err) {
  if (error != 0) {
    err += text + "errno=" + std::to_string(error) + ";";
  }
}

// Stops at the first failure and yields its errno.
[[nodiscard]] int SetEnvArgv(const std::map<std::string, std::string>& entries, Environment& env) {
  for (const auto& [name, value] : entries) {
    if (const int error = env.Set(name, value); error != 0) {
      return error;
    }
  }
  return 0;
}

void SetPlaneEnv(const std::string& owner, Environment& env, std::string& err) {
  const int error = env.Set("PROC_PLANE", owner == kDataService ? "PLANE_DATA" : "PLANE_MANAGE");
  Tell(error, "SetPlaneEnv PROC_PLANE failed ", err);
}

void SetHomeEnvVariableOfSpecificUser(const std::string& home, Environment& env, std::string& err) {
  const int error = env.Set("HOME", home);
  Tell(error, "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=" + home + ", ", err);
}

void SetHeartBeatSwitchEnv(bool isOn, Environment& env, std::string& err) {
  const int error = isOn ? env.Set("GRP_HB", "1") : 0;
  Tell(error, "SetHeartBeatSwitchEnv  failed ", err);
}

bool IsAsanPreload(const std::map<std::string, std::string>& entries) {
  const auto entry = entries.find("LD_PRELOAD");
  return entry != entries.end() && entry->second.find("libasan.so") != std::string::npos;
}

void SetAppAsanEnv(bool isAsan, Environment& env, std::string& err) {
  const int error = isAsan ? env.Set("LD_PRELOAD", "/lib64/libasan.so.4:libiam.so.1") : 0;
  Tell(error, "SetAppAsanEnv preload failed ", err);
}

// A service that comes back after a crash may want to look at what it left behind.
void SetRestartEnv(const BaseAppInfo& app, Environment& env, std::string& err) {
  const bool isRestart = app.reportState_ == ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
  Tell(env.Set("IS_RESTART", isRestart ? "1" : "0"), "Set restart env failed, ", err);
}

void SetStartupEntryPathEnv(const BaseAppInfo& app, Environment& env, std::string& err) {
  const int error =
      app.startupEntryPath_.empty() ? 0 : env.Set("STARTUP_ENTRY_PATH", app.startupEntryPath_);
  Tell(error, "Set startup entry path env failed, ", err);
}

}  // namespace

void SetupBaseEnv(const BaseAppInfo& app, Environment& env, std::string& err) {
  SetShareGroupEnv(app.appName_, app.appName_, {}, env, err);
  Tell(SetEnvArgv(app.envArgv_, env), "setenv failed, ", err);
}

void SetupBaseEnvBehindAccess(const BaseAppInfo& app, Environment& env, std::string& err) {
  SetHomeEnvVariableOfSpecificUser(app.homeEnv_, env, err);
  SetAppAsanEnv(IsAsanPreload(app.envArgv_), env, err);
  SetRestartEnv(app, env, err);
  SetStartupEntryPathEnv(app, env, err);
}

void SetupGeneralEnv(const GeneralAppInfo& app, Environment& env, std::string& err) {
  SetShareGroupEnv(app.appName_, app.ownerName_, app.sharepoolGroups_, env, err);
  SetPlaneEnv(app.ownerName_, env, err);
  SetHomeEnvVariableOfSpecificUser(app.homeEnv_, env, err);
  int error = SetEnvArgv(app.envArgv_, env);
  if (error == 0) {
    error = env.Set("OWNER_NAME", app.ownerName_);
  }
  Tell(error, "setenv failed, ", err);
}

void SetupGeneralEnvBehindAccess(const GeneralAppInfo& app, Environment& env, std::string& err) {
  SetHeartBeatSwitchEnv(app.heartBeatSwitch_, env, err);
  SetAppAsanEnv(IsAsanPreload(app.envArgv_), env, err);
}

}  // namespace ProcMgr::App
