// The fault sensors of the platform, and the news of the heartbeat library for them.
#ifndef CORE_FAULTS_H
#define CORE_FAULTS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "app/app_info.h"

namespace ProcMgr {

enum class Fault { kOn, kOff };

// Registers the sensor nodes of "iammgr" and "proc_launcher". Main thread, once.
void RegisterSensorNodes();

// Gives the nodes back, at shutdown.
void UnregisterSensorNodes();

// Raises or clears the fault of an application that has a node and whose node type is 0; any other
// has no fault to raise. Any thread.
void UpdateFaultSensor(const std::string& name, std::int32_t nodeType, Fault fault);

// Has the heartbeat library watch a base application's beats. Any thread.
void RegisterHeartBeat(const App::BaseAppInfo& app);

// What the heartbeat library calls when a base application goes silent (status 1) or comes back
// (0). Waits for the check pass over the base applications. Yields whether the status was acted on.
[[nodiscard]] bool OnHeartBeatNotify(const char* name, std::size_t length, pid_t pid,
                                     std::uint32_t status);

}  // namespace ProcMgr

#endif  // CORE_FAULTS_H
