// The delayed core binding: applications that ask for it run where their cpuset allows until the
// platform says that it is up; from then on they, and for a while their new threads, are kept on
// the cores of their manifests.
#ifndef CORE_DELAYED_BINDING_H
#define CORE_DELAYED_BINDING_H

#include <atomic>
#include <cstdint>

#include "base/mutex.h"
#include "core/app_lists.h"
#include "core/worker.h"
#include "host/proc_mgr_cfg.h"

namespace ProcMgr {

// What a failed delayed binding yields.
inline constexpr std::uint32_t kDelayedBindingFailed = 0xF1030C;

// Requests and wake-ups from one thread at a time, in the order in which they came: what is done
// about one may last.
class DelayedBinding {
 public:
  // The check rounds go on as long as `running`, which must outlive this.
  explicit DelayedBinding(const std::atomic<bool>& running) : running_(running) {}

  // Binds all applications that wait for it, and starts the thread that binds the threads which
  // come up later, in the rounds that `cfg` asks for. A request behind an honoured one has no
  // effect until a wake-up allows the next. Logs what fails.
  void Request(const DelayCoreSettings& cfg) EXCLUDES(coreAffinityThreadMutex_, delayCoreMutex_);

  // After a wake-up of the board: brings all processes back to their cores, and undoes the binding
  // if the last request asked for that. False: some stay where they are. The last line that it logs
  // tells that too.
  [[nodiscard]] bool WakeUpRecover()
      EXCLUDES(delayCoreMutex_, pmUploadMutex_, generalAppMutex_, baseAppMutex_);

  // Ends the thread. Once `running` is false, and nobody requests any more.
  void Stop() EXCLUDES(coreAffinityThreadMutex_);

 private:
  void CheckCoreAffinityThread();
  [[nodiscard]] std::uint32_t SetDelayCoreAffinity(const DelayCoreSettings& cfg)
      EXCLUDES(delayCoreMutex_);
  [[nodiscard]] DelayCoreSettings CurrentSettings() EXCLUDES(delayCoreMutex_);

  const std::atomic<bool>& running_;

  // How many requests were honoured. Whoever has seen them up to a number misses none that follows,
  // however briefly the flag between them was down.
  std::atomic<std::uint64_t> honouredRequests_ = 0;

  // The settings of the last honoured request.
  Mutex delayCoreMutex_;
  DelayCoreSettings delayCoreCfg_ GUARDED_BY(delayCoreMutex_);

  // Started by the first request. One is enough: it ends only if no further request will be
  // honoured.
  Mutex coreAffinityThreadMutex_;
  Worker coreAffinityThread_ GUARDED_BY(coreAffinityThreadMutex_);
  bool isCoreAffinityThreadStarted_ GUARDED_BY(coreAffinityThreadMutex_) = false;
};

}  // namespace ProcMgr

#endif  // CORE_DELAYED_BINDING_H
