#include "app/child_env.h"

#include <cerrno>
#include <cstdlib>
#include <map>

#include "app/share_groups.h"
#include "base/names.h"
#include "platform/iam/iam.h"

namespace ProcMgr::App {
namespace {

// Yields 0 or errno. About setenv in a child of a process with threads see app/child_main.h.
[[nodiscard]] int SetEnv(const char* name, const std::string& value) {
  return setenv(name, value.c_str(), 1) == 0 ? 0 : errno;
}

// Appends "TEXTerrno=NUMBER;" if there is an error.
void Tell(int error, const std::string& text, std::string& err) {
  if (error != 0) {
    err += text + "errno=" + std::to_string(error) + ";";
  }
}

// Stops at the first failure and yields its errno.
[[nodiscard]] int SetEnvArgv(const std::map<std::string, std::string>& entries) {
  for (const auto& [name, value] : entries) {
    if (const int error = SetEnv(name.c_str(), value); error != 0) {
      return error;
    }
  }
  return 0;
}

void SetPlaneEnv(const std::string& owner, std::string& err) {
  const int error = SetEnv("PROC_PLANE", owner == kDataService ? "PLANE_DATA" : "PLANE_MANAGE");
  Tell(error, "SetPlaneEnv PROC_PLANE failed ", err);
}

void SetHomeEnvVariableOfSpecificUser(const std::string& home, std::string& err) {
  const int error = SetEnv("HOME", home);
  Tell(error, "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=" + home + ", ", err);
}

void InitAccess(const AppInfo& app, std::string& err) {
  errno = 0;
  if (IAMInitProc({app.appName_, app.execPath_}) < 0) {
    const int error = errno;
    err += "IAMInitProc failed, errno=" + std::to_string(error) + ";";
  }
}

void SetHeartBeatSwitchEnv(bool isOn, std::string& err) {
  const int error = isOn ? SetEnv("GRP_HB", "1") : 0;
  Tell(error, "SetHeartBeatSwitchEnv  failed ", err);
}

bool IsAsanPreload(const std::map<std::string, std::string>& entries) {
  const auto entry = entries.find("LD_PRELOAD");
  return entry != entries.end() && entry->second.find("libasan.so") != std::string::npos;
}

void SetAppAsanEnv(bool isAsan, std::string& err) {
  const int error = isAsan ? SetEnv("LD_PRELOAD", "/lib64/libasan.so.4:libiam.so.1") : 0;
  Tell(error, "SetAppAsanEnv preload failed ", err);
}

// A service that comes back after a crash may want to look at what it left behind.
void SetRestartEnv(const BaseAppInfo& app, std::string& err) {
  const bool isRestart = app.reportState_ == ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
  Tell(SetEnv("IS_RESTART", isRestart ? "1" : "0"), "Set restart env failed, ", err);
}

void SetStartupEntryPathEnv(const BaseAppInfo& app, std::string& err) {
  const int error =
      app.startupEntryPath_.empty() ? 0 : SetEnv("STARTUP_ENTRY_PATH", app.startupEntryPath_);
  Tell(error, "Set startup entry path env failed, ", err);
}

}  // namespace

void SetupBaseEnv(const BaseAppInfo& app, std::string& err) {
  SetShareGroupEnv(app.appName_, app.appName_, {}, err);
  Tell(SetEnvArgv(app.envArgv_), "setenv failed, ", err);
  InitAccess(app, err);
  SetHomeEnvVariableOfSpecificUser(app.homeEnv_, err);
  SetAppAsanEnv(IsAsanPreload(app.envArgv_), err);
  SetRestartEnv(app, err);
  SetStartupEntryPathEnv(app, err);
}

void SetupGeneralEnv(const GeneralAppInfo& app, std::string& err) {
  SetShareGroupEnv(app.appName_, app.ownerName_, app.sharepoolGroups_, err);
  SetPlaneEnv(app.ownerName_, err);
  SetHomeEnvVariableOfSpecificUser(app.homeEnv_, err);
  int error = SetEnvArgv(app.envArgv_);
  if (error == 0) {
    error = SetEnv("OWNER_NAME", app.ownerName_);
  }
  Tell(error, "setenv failed, ", err);
  InitAccess(app, err);
  SetHeartBeatSwitchEnv(app.heartBeatSwitch_, err);
  SetAppAsanEnv(IsAsanPreload(app.envArgv_), err);
}

}  // namespace ProcMgr::App
