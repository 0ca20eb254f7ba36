#include "app/child_env.h"

#include <cerrno>
#include <cstdlib>
#include <map>

#include "app/share_groups.h"
#include "platform/iam/iam.h"

namespace ProcMgr::App {
namespace {

// setenv in a child of a process with threads: see the rules of app/child_main.h.
bool SetEnv(const char* name, const std::string& value) {
  return setenv(name, value.c_str(), 1) == 0;
}

// To be called in the statement behind the one that failed.
std::string ErrnoText() {
  return "errno=" + std::to_string(errno) + ";";
}

bool SetEnvArgv(const std::map<std::string, std::string>& entries) {
  for (const auto& [name, value] : entries) {
    if (!SetEnv(name.c_str(), value)) {
      return false;
    }
  }
  return true;
}

void SetPlaneEnv(const std::string& owner, std::string& err) {
  if (!SetEnv("PROC_PLANE", owner == "ventrix" ? "PLANE_DATA" : "PLANE_MANAGE")) {
    err += "SetPlaneEnv PROC_PLANE failed " + ErrnoText();
  }
}

void SetHomeEnvVariableOfSpecificUser(const std::string& home, std::string& err) {
  if (!SetEnv("HOME", home)) {
    err += "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=" + home + ", " + ErrnoText();
  }
}

void InitAccess(const AppInfo& app, std::string& err) {
  if (IAMInitProc({app.appName_, app.execPath_}) < 0) {
    err += "IAMInitProc failed, " + ErrnoText();
  }
}

void SetHeartBeatSwitchEnv(bool isOn, std::string& err) {
  if (isOn && !SetEnv("GRP_HB", "1")) {
    err += "SetHeartBeatSwitchEnv  failed " + ErrnoText();
  }
}

bool IsAsanPreload(const std::map<std::string, std::string>& entries) {
  const auto entry = entries.find("LD_PRELOAD");
  return entry != entries.end() && entry->second.find("libasan.so") != std::string::npos;
}

void SetAppAsanEnv(bool isAsan, std::string& err) {
  if (isAsan && !SetEnv("LD_PRELOAD", "/lib64/libasan.so.4:libiam.so.1")) {
    err += "SetAppAsanEnv preload failed " + ErrnoText();
  }
}

// A service that comes back after a crash may want to look at what it left behind.
void SetRestartEnv(const BaseAppInfo& app, std::string& err) {
  const bool isRestart = app.reportState_ == ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
  if (!SetEnv("IS_RESTART", isRestart ? "1" : "0")) {
    err += "Set restart env failed, " + ErrnoText();
  }
}

void SetStartupEntryPathEnv(const BaseAppInfo& app, std::string& err) {
  if (!app.startupEntryPath_.empty() && !SetEnv("STARTUP_ENTRY_PATH", app.startupEntryPath_)) {
    err += "Set startup entry path env failed, " + ErrnoText();
  }
}

}  // namespace

void SetupBaseEnv(const BaseAppInfo& app, std::string& err) {
  SetShareGroupEnv(app.appName_, app.appName_, {}, err);
  if (!SetEnvArgv(app.envArgv_)) {
    err += "setenv failed, " + ErrnoText();
  }
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
  if (!SetEnvArgv(app.envArgv_) || !SetEnv("OWNER_NAME", app.ownerName_)) {
    err += "setenv failed, " + ErrnoText();
  }
  InitAccess(app, err);
  SetHeartBeatSwitchEnv(app.heartBeatSwitch_, err);
  SetAppAsanEnv(IsAsanPreload(app.envArgv_), err);
}

}  // namespace ProcMgr::App
