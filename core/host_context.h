// What the manager knows about its host at boot.
#ifndef CORE_HOST_CONTEXT_H
#define CORE_HOST_CONTEXT_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "base/unique_fd.h"

namespace ProcMgr {

// The process-wide host record. The plain fields are filled on the boot thread before any other
// thread of the manager starts, and only read afterwards; the atomics may change at any time.
struct HostContext {
  // The record, built on first use. Any thread.
  static HostContext& Instance();

  std::int32_t slotId_ = -1;
  bool selinuxEnable_ = false;
  // Key: the YAML file name of an optional base service that the kernel command line asked for;
  // value: whether a manifest of that file has been seen. Boot thread only.
  std::map<std::string, bool> optionalServices_;
  // The base-service YAML that the kernel command line chose; empty: the argument's stands.
  std::string startupYaml_;
  bool disableWatchDog_ = false;
  bool qelcoreEnable = false;
  pid_t pid_ = -1;
  // True from main's second argument until the end of the wait for the continue signal.
  std::atomic<bool> isQuickStart_ = false;
  // The delayed core binding request has been received; cleared at wake-up.
  std::atomic<bool> delayCoreAffinityReceived_ = false;
  // Stops a scan of the core binding thread that is under way.
  std::atomic<bool> coreAffinityCheckSuspend_ = false;
  // The two ends of the child message pipe (base/child_msg_pipe.h).
  UniqueFd childMsgReadFd_;
  UniqueFd childMsgWriteFd_;
};

}  // namespace ProcMgr

#endif  // CORE_HOST_CONTEXT_H
