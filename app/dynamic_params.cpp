// The values that a request brings for what a manifest leaves open.
#include <cstdint>
#include <limits>

#include "app/app_info.h"
#include "core/log.h"

namespace ProcMgr::App {
namespace {

// The keys of a request's parameters.

const std::vector<std::string>& ValuesOf(const std::map<int, std::vector<std::string>>& params,
                                         ParamKey key) {
  static const std::vector<std::string> kNone;
  const auto entry = params.find(static_cast<int>(key));
  return entry == params.end() ? kNone : entry->second;
}

// Decimal digits only. An empty text is 0; anything else, or a number that doesn't fit, is -1.
std::int32_t ParseVfId(const std::string& text) {
  std::int64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return -1;
    }
    value = value * 10 + (c - '0');
    if (value > std::numeric_limits<std::int32_t>::max()) {
      return -1;
    }
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace

bool AppInfo::UpdateDynamicParam(const std::vector<std::string>& args,
                                 const std::map<int, std::vector<std::string>>& params) {
  if (!isDynamicPara_) {
    return true;
  }
  UpdateArgv(args);
  return UpdateExecvPath(ValuesOf(params, ParamKey::kExecPath)) &&
         UpdateVfId(ValuesOf(params, ParamKey::kVfId)) &&
         UpdateEnv(ValuesOf(params, ParamKey::kEnv));
}

void AppInfo::UpdateArgv(const std::vector<std::string>& args) {
  if (isArgvDynamic_) {
    arguments_ = args;
  }
}

bool AppInfo::UpdateExecvPath(const std::vector<std::string>& values) {
  if (!isExecPathDynamic_) {
    return true;
  }
  if (values.size() != 1) {
    LogError("PROCMGR : dynamic execPath vector size invalid, %zu", values.size());
    return false;
  }
  const std::string& path = values.front();
  if (path.empty()) {
    LogError("PROCMGR : dynamic execPath invalid, is empty");
    return false;
  }
  if (!ParseAndDepend::Instance().IsDynamicParaMatch(execPathPattern_, path)) {
    LogError("PROCMGR : dynamic execPath invalid, pattern=%s, execPath=%s",
             execPathPattern_.c_str(), path.c_str());
    return false;
  }
  execPath_ = path;
  LogInfo("PROCMGR : UpdateExecvPath dynamic appName=%s, execPath=%s", appName_.c_str(),
          execPath_.c_str());
  return true;
}

bool AppInfo::UpdateVfId(const std::vector<std::string>& values) {
  if (!isVfIdDynamic_) {
    return true;
  }
  if (values.empty()) {
    LogWarning("PROCMGR : dynamic vfid vector size invalid, use default value");
    vfId_ = -1;
    return true;
  }
  const std::string& number = values.front();
  if (!ParseAndDepend::Instance().IsDynamicParaMatch(vfIdPattern_, number)) {
    LogError("PROCMGR : dynamic vfid invalid, pattern=%s, vfid=%s", vfIdPattern_.c_str(),
             number.c_str());
    return false;
  }
  vfId_ = ParseVfId(number);
  LogInfo("PROCMGR : UpdateVfId dynamic appName=%s, vfId=%d", appName_.c_str(), vfId_);
  return true;
}

bool AppInfo::UpdateEnv(const std::vector<std::string>& values) {
  if (!isEnvDynamic_) {
    return true;
  }
  envArgv_.clear();
  std::string logText;
  for (const auto& [key, value] : envTemplate_) {
    if (!ParseAndDepend::Instance().IsDynamicPara(value)) {
      envArgv_[key] = value;
      logText.append(key).append("=").append(value).append(" ");
    }
  }
  for (const std::string& text : values) {
    if (!UpdateEnvEntry(text, logText)) {
      return false;
    }
  }
  LogInfo("PROCMGR : UpdateEnv dynamic appName=%s, env=%s", appName_.c_str(), logText.c_str());
  return true;
}

bool AppInfo::UpdateEnvEntry(const std::string& text, std::string& logText) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
    LogError("PROCMGR : dynamic env invaild, %s", text.c_str());
    return false;
  }
  const std::string key = text.substr(0, equals);
  const auto entry = envTemplate_.find(key);
  if (entry == envTemplate_.end()) {
    LogWarning("PROCMGR : dynamic env key not in yaml cfg, %s, ignore it", key.c_str());
    return true;
  }
  const std::string value = text.substr(equals + 1);
  const std::string& pattern = entry->second;
  if (!ParseAndDepend::Instance().IsDynamicParaMatch(pattern, value)) {
    LogError("PROCMGR : dynamic env value invaild, key=%s, pattern=%s, env=%s", key.c_str(),
             pattern.c_str(), value.c_str());
    return false;
  }
  envArgv_[key] = value;
  logText.append(key).append("=").append(value).append(" ");
  return true;
}

}  // namespace ProcMgr::App
