#include "host/proc_mgr_cfg.h"

#include <sys/stat.h>

#include <cerrno>

#include "base/printable.h"
#include "base/text.h"
#include "base/user_lookup.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr const char* kWatchDogKey = "watch_dog";
constexpr const char* kPmUploadKey = "pmupload";
constexpr const char* kDelayCoreKey = "delay_core";
constexpr const char* kSupervisionKey = "supervision";
constexpr const char* kStatusKey = "status";

std::optional<bool> ReadBool(const KvsTypeYaml& node, const char* key) {
  KvsTypeYaml sub;
  bool value = false;
  if (!node.GetSubKvs(key, sub) || !sub.GetBool(value)) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::string> ReadText(const KvsTypeYaml& node, const char* key) {
  KvsTypeYaml sub;
  std::string value;
  if (!node.GetSubKvs(key, sub) || !sub.GetString(value)) {
    return std::nullopt;
  }
  return value;
}

// The number under `key`, or 0 with a warning. A key that is left out is no fault.
template <typename Number>
Number ReadNumberOrZero(const KvsTypeYaml& node, const char* key, const char* range) {
  KvsTypeYaml sub;
  if (!node.GetSubKvs(key, sub)) {
    return 0;
  }
  std::string text;
  const std::optional<Number> value =
      sub.GetString(text) ? ParseNumber<Number>(text) : std::nullopt;
  if (!value) {
    LogWarningRouted("LoadDelayCoreCfg %s=%s is no number from %s, use 0", key, text.c_str(),
                     range);
  }
  return value.value_or(0);
}

std::string ScalarOf(const KvsTypeYaml& node) {
  std::string text;
  return node.GetString(text) ? text : std::string();
}

// The mapping under `key`, which may be left out.
std::optional<KvsTypeYaml> FindMapping(const KvsTypeYaml& root, const char* key) {
  KvsTypeYaml node;
  std::vector<std::string> elements;
  if (!root.GetSubKvs(key, node)) {
    return std::nullopt;
  }
  std::string text;
  if (node.GetString(text) || node.GetSequenceString(elements)) {
    LogWarningRouted("LoadProcMgrCfg %s=%s is no mapping, use its defaults", key,
                     Printable(text).c_str());
    return std::nullopt;
  }
  return node;
}

// The group of that number or name.
std::optional<gid_t> FindGroup(const std::string& text) {
  if (IsStrDigits(text)) {
    return ParseNumber<gid_t>(text);
  }
  return FindGroupId(text);
}

}  // namespace

void LoadProcMgrCfg(const std::string& path, ProcMgrCfg& cfg) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    LogErrorRouted("LoadProcMgrCfg file=%s failed. errno=%d", path.c_str(), errno);
    return;
  }
  KvsTypeYaml root;
  if (!root.InitYamlNode(path)) {
    LogErrorRouted("LoadProcMgrCfg file=%s failed. init yaml node failed", path.c_str());
    return;
  }
  if (LoadWatchDogCfg(root, cfg)) {
    (void)LoadPmUploadCfg(root, cfg);  // It has logged a missing key, and the default stands.
  }
  (void)LoadDelayCoreCfg(root, cfg);  // Optional.
  LoadSupervisionCfg(root, cfg);
  LoadStatusCfg(root, cfg);
}

bool LoadWatchDogCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kWatchDogKey, node)) {
    LogErrorRouted("LoadWatchDogCfg not exist %s key", kWatchDogKey);
    return false;
  }
  WatchDogCfg watchDog;
  watchDog.enable = GetWatchDogEnbale(node);
  watchDog.timeout = GetWatchDogTimeout(node);
  watchDog.action = GetWatchDogAction(node);
  cfg.watchDogCfg = watchDog;
  LogInfoRouted("PROCMGR: LoadWatchDogCfg finish enable=%d, wdTimeout=%s s, wdAction=%s",
                watchDog.enable ? 1 : 0, watchDog.timeout.c_str(), watchDog.action.c_str());
  return true;
}

bool LoadPmUploadCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kPmUploadKey, node)) {
    LogErrorRouted("LoadPmUploadCfg not exist %s key", kPmUploadKey);
    return false;
  }
  cfg.pmUploadEnable = GetPmuploadEnbale(node);
  LogInfoRouted("PROCMGR: LoadPmUploadCfg finish enable=%d", cfg.pmUploadEnable ? 1 : 0);
  return true;
}

bool LoadDelayCoreCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kDelayCoreKey, node)) {
    return false;
  }
  DelayCoreSettings settings;
  settings.checkNum = ReadNumberOrZero<std::int8_t>(node, "check_num", "-128 to 127");
  settings.checkInterval =
      ReadNumberOrZero<std::uint32_t>(node, "check_interval", "0 to 4294967295");
  KvsTypeYaml wakeUp;
  if (node.GetSubKvs("wake_up_enable", wakeUp) && !wakeUp.GetBool(settings.isWakeUpEnable)) {
    LogWarningRouted("LoadDelayCoreCfg wake_up_enable is neither true nor false, use false");
  }
  cfg.delayCore = settings;
  LogInfoRouted("PROCMGR: LoadDelayCoreCfg finish checkNum=%d, isWakeUpEnable=%d, checkInterval=%u",
                settings.checkNum, settings.isWakeUpEnable ? 1 : 0, settings.checkInterval);
  return true;
}

void LoadSupervisionCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg) {
  const std::optional<KvsTypeYaml> node = FindMapping(root, kSupervisionKey);
  KvsTypeYaml sub;
  if (!node || !node->GetSubKvs("reaction", sub)) {
    return;
  }
  const std::string word = ScalarOf(sub);
  if (word == "immediate") {
    cfg.reaction = Reaction::kImmediate;
  } else if (word != "pass") {
    LogWarningRouted(
        "LoadProcMgrCfg supervision/reaction=%s is neither pass nor immediate, use pass",
        Printable(word).c_str());
  }
}

void LoadStatusCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg) {
  const std::optional<KvsTypeYaml> node = FindMapping(root, kStatusKey);
  if (!node) {
    return;
  }
  KvsTypeYaml sub;
  if (node->GetSubKvs("enable", sub) && !sub.GetBool(cfg.status.isEnabled)) {
    LogWarningRouted("LoadProcMgrCfg status/enable=%s is neither true nor false, use true",
                     Printable(ScalarOf(sub)).c_str());
  }
  if (!node->GetSubKvs("group", sub)) {
    return;
  }
  const std::string name = ScalarOf(sub);
  const std::optional<gid_t> gid = FindGroup(name);
  if (!gid) {
    LogWarningRouted("LoadProcMgrCfg status/group=%s is no group, use 0", Printable(name).c_str());
  }
  cfg.status.gid = gid.value_or(0);
}

bool GetWatchDogEnbale(const KvsTypeYaml& node) {
  const std::optional<bool> enable = ReadBool(node, "enable");
  if (!enable) {
    LogWarningRouted("GetWatchDogEnbale is null !");
  }
  return enable.value_or(true);
}

std::string GetWatchDogTimeout(const KvsTypeYaml& node) {
  const std::optional<std::string> timeout = ReadText(node, "timeout");
  if (!timeout || timeout->empty() || !IsStrDigits(*timeout)) {
    LogWarningRouted("GetWatchDogTimeout is null !");
    return WatchDogCfg{}.timeout;
  }
  return *timeout;
}

std::string GetWatchDogAction(const KvsTypeYaml& node) {
  const std::optional<std::string> action = ReadText(node, "action");
  if (!action || (*action != "0" && *action != "1" && *action != "2")) {
    LogWarningRouted("GetWatchDogAction is null !");
    return WatchDogCfg{}.action;
  }
  return *action;
}

bool GetPmuploadEnbale(const KvsTypeYaml& node) {
  const std::optional<bool> enable = ReadBool(node, "enable");
  if (!enable) {
    LogWarningRouted("GetPmuploadEnbale is null !");
  }
  return enable.value_or(true);
}

}  // namespace ProcMgr
