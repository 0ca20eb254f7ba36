// The manager's own configuration file.
//
// docs/config-procmgr-cfg.md describes the file. It is read once, on the boot thread; a missing or
// broken file, key or value leaves the defaults below and never stops the boot.
#ifndef HOST_PROC_MGR_CFG_H
#define HOST_PROC_MGR_CFG_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/manifest/kvs_type_yaml.h"

namespace ProcMgr {

inline constexpr const char* kProcMgrCfgFile =
    "/etc/zur/base-plat/process-manager/procmgr_cfg.yaml";

// The hardware watchdog (host/watchdog.h).
struct WatchDogCfg {
  bool enable = true;          // Whether the module is to be inserted.
  std::string timeout = "60";  // Decimal seconds; one or more digits, no range promised.
  std::string action = "2";    // "0", "1" or "2".
  std::string koPath = "/var/sbsa_gwdt.ko";  // Not configurable.
  std::string koName = "sbsa_gwdt";          // Not configurable.
};

// How the threads of delayed applications are searched for after a request to bind them.
struct DelayCoreSettings {
  std::int8_t checkNum = 0;         // Most check rounds; 0 for none, negative for no limit.
  bool isWakeUpEnable = false;      // A wake-up undoes the binding and allows the next request.
  std::uint32_t checkInterval = 0;  // Milliseconds between check rounds.

  bool operator==(const DelayCoreSettings&) const = default;
};

// When the supervision looks at the applications.
enum class Reaction {
  kPass,       // At every pass, 30 ms behind the end of the last.
  kImmediate,  // As soon as there is something to see.
};

// The status service (status/status_service.h).
struct StatusCfg {
  bool isEnabled = true;
  gid_t gid = 0;  // Whose members may ask, besides root.
};

struct ProcMgrCfg {
  WatchDogCfg watchDogCfg;
  bool pmUploadEnable = false;  // Whether the upload service is started.
  // The settings of a delayed core binding; none if the file has no "delay_core".
  std::optional<DelayCoreSettings> delayCore;
  Reaction reaction = Reaction::kPass;
  StatusCfg status;
};

// Reads the file at `path` into `cfg`, which holds the defaults. "pmupload" is read only in a file
// that has "watch_dog". Boot thread; reads a file, and the group database for a group's name.
void LoadProcMgrCfg(const std::string& path, ProcMgrCfg& cfg);

// The parts of the file, each given the root node: true if its key is there.
[[nodiscard]] bool LoadWatchDogCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg);
[[nodiscard]] bool LoadPmUploadCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg);
[[nodiscard]] bool LoadDelayCoreCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg);

// These may be left out, whole or in part, without a line.
void LoadSupervisionCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg);
void LoadStatusCfg(const KvsTypeYaml& root, ProcMgrCfg& cfg);

// The values, each given the node of its mapping: the value, or the default with a warning.
[[nodiscard]] bool GetWatchDogEnbale(const KvsTypeYaml& node);
[[nodiscard]] std::string GetWatchDogTimeout(const KvsTypeYaml& node);
[[nodiscard]] std::string GetWatchDogAction(const KvsTypeYaml& node);
[[nodiscard]] bool GetPmuploadEnbale(const KvsTypeYaml& node);

}  // namespace ProcMgr

#endif  // HOST_PROC_MGR_CFG_H
