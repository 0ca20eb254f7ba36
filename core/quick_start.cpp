#include "core/quick_start.h"

#include <atomic>
#include <csignal>
#include <cstdint>

#include "base/boot_trace.h"
#include "base/sleep.h"
#include "core/host_context.h"
#include "core/log.h"
#include "platform/timer/generic_timer.h"

namespace ProcMgr {
namespace {

constexpr std::int64_t kWaitStepNs = 5'000'000;
constexpr int kWaitSteps = 2000;

// A handler may not format a text: it keeps the raw count, and whoever prints it formats it. The
// time is stored ahead of the flag, so that whoever sees the flag sees its time.
std::atomic<bool> continueFlag_ = false;
std::atomic<std::uint64_t> continueTime_ = 0;
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

// Runs on whichever thread the signal interrupts.
void OnContinueSignal(int) {
  continueTime_.store(GenericTimerCount());
  continueFlag_.store(true);
}

bool WaitForFlag(const StopRequest& stop) {
  for (int step = 0; step < kWaitSteps && !continueFlag_.load() && !stop.IsAsked(); ++step) {
    SleepNs(kWaitStepNs);
  }
  return continueFlag_.load();
}

}  // namespace

void InstallContinueHandler() {
  struct sigaction action {};
  action.sa_handler = &OnContinueSignal;
  action.sa_flags = SA_RESTART;
  (void)sigaction(SIGCONT, &action, nullptr);
}

void WaitContinueSignal(const StopRequest& stop) {
  HostContext& context = HostContext::Instance();
  if (!context.isQuickStart_.load()) {
    LogInfoRouted("is not quickstart, so not wait for continue signal");
    return;
  }
  if (WaitForFlag(stop)) {
    const std::string time =
        FormatBootTrace(continueTime_.load(), GenericTimerFrequency(), kBootTraceTag);
    LogInfoRouted("%s wait success for continue startup, catch continue signal time=%s",
                  BootStrace(kBootTraceTag).c_str(), time.c_str());
  } else if (!stop.IsAsked()) {
    LogInfoRouted("%s wait for continue startup timeout!!", BootStrace(kBootTraceTag).c_str());
  }
  context.isQuickStart_.store(false);
}

}  // namespace ProcMgr
