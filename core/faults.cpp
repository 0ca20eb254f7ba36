#include "core/faults.h"

#include <map>

#include "base/mutex.h"
#include "base/names.h"
#include "core/app_lists.h"
#include "core/log.h"
#include "platform/heartbeat/heartbeat.h"
#include "platform/plat/plat.h"
#include "platform/securec/securec.h"

namespace ProcMgr {
namespace {

constexpr std::uint32_t kDeviceId = 0;
constexpr std::uint8_t kSensorType = 39;
constexpr std::uint32_t kFaultOn = 0;
constexpr std::uint32_t kFaultOff = 2;
constexpr std::uint32_t kEventId = 1501;
constexpr const char* kLauncher = "proc_launcher";
constexpr std::uint16_t kAccessNodeId = 1538;
constexpr std::uint16_t kLauncherNodeId = 1539;

// Handles of the platform by application name: two at most. The check thread reads while the boot
// still registers.
Mutex sensorMutex_;
std::map<std::string, std::uint64_t> sensorNodeMap_ GUARDED_BY(sensorMutex_);

bool BuildSensorNode(const std::string& name, std::uint16_t nodeId, SensorNodeRecord& record) {
  if (strcpy_s(record.name, sizeof(record.name), name.c_str()) != 0) {
    LogError("Copy sensor node name for %s failed.", name.c_str());
    return false;
  }
  record.nodeId = nodeId;
  record.sensorType = kSensorType;
  return true;
}

// Yields the platform's result, 0 for success.
std::uint32_t RegisterSensorNode(const std::string& name, std::uint16_t nodeId,
                                 std::uint64_t& handle) {
  SensorNodeRecord record{};
  (void)BuildSensorNode(name, nodeId, record);  // Both names fit.
  const std::uint32_t ret = platSensorNodeRegister(kDeviceId, &record, &handle);
  if (ret == 0) {
    const MutexLock lock(sensorMutex_);
    sensorNodeMap_[name] = handle;
  }
  return ret;
}

}  // namespace

void RegisterSensorNodes() {
  std::uint64_t handle = 0;
  std::uint32_t ret = RegisterSensorNode(kAccessService, kAccessNodeId, handle);
  if (ret != 0) {
    LogError("Register sensor node for iammgr failed. (ret=%u)", ret);
    return;
  }
  LogInfo("Register sensor node for iammgr success. (handle=0x%lu)", handle);
  ret = RegisterSensorNode(kLauncher, kLauncherNodeId, handle);
  if (ret != 0) {
    LogError("Register sensor node for proc_launcher failed. (ret=%u)", ret);
    return;
  }
  LogInfo("Register sensor node for proc_launcher success. (handle=0x%lu)", handle);
}

void UnregisterSensorNodes() {
  const MutexLock lock(sensorMutex_);
  for (const char* const name : {kAccessService, kLauncher}) {
    if (const auto node = sensorNodeMap_.find(name); node != sensorNodeMap_.end()) {
      (void)platSensorNodeUnregister(kDeviceId, node->second);
    }
  }
}

void UpdateFaultSensor(const std::string& name, std::int32_t nodeType, Fault fault) {
  if (nodeType != 0) {
    return;
  }
  const MutexLock lock(sensorMutex_);
  const auto node = sensorNodeMap_.find(name);
  if (node == sensorNodeMap_.end()) {
    return;
  }
  const std::uint32_t value = fault == Fault::kOn ? kFaultOn : kFaultOff;
  const std::uint32_t ret = platSensorNodeUpdateState(kDeviceId, node->second, value);
  if (ret != 0) {
    LogError("Reported app state change failed. (fault=%u,ret=%u,eventId=%u)", value, ret,
             kEventId);
  }
}

void RegisterHeartBeat(const App::BaseAppInfo& app) {
  const std::string& name = app.appName_;
  const int ret = RegisterCheckHeartBeat(name.c_str(), name.size(), app.gid_, &OnHeartBeatNotify);
  if (ret != 0) {
    LogError("Register heart beat for %s failed. (ret=%d)", name.c_str(), ret);
  }
}

bool OnHeartBeatNotify(const char* name, std::size_t length, pid_t pid, std::uint32_t status) {
  if (name == nullptr || length == 0) {
    LogError("Process heart beat notify, app name is invalid. (nameLen=%zu)", length);
    return false;
  }
  const MutexLock lock(baseAppMutex_);
  const App::BaseAppInfo* const app = FindBaseApp(name);
  if (app == nullptr) {
    LogError("Process heart beat notify, not find base app=%s", name);
    return false;
  }
  switch (status) {
    case kHeartBeatLost:
      LogInfo("Process heart beat notify. (app=%s,pid=%d,status=lost)", name, pid);
      UpdateFaultSensor(name, app->nodeType_, Fault::kOn);
      return true;
    case kHeartBeatRecovered:
      LogInfo("Process heart beat notify. (app=%s,pid=%d,status=recovery)", name, pid);
      UpdateFaultSensor(name, app->nodeType_, Fault::kOff);
      return true;
    default:
      LogWarning("App status is invalid. (status=%u)", status);
      return false;
  }
}

}  // namespace ProcMgr
