// Whether a base application that has ended is started again.
#include <chrono>

#include "app/app_info.h"
#include "core/log.h"

namespace ProcMgr::App {
namespace {

constexpr unsigned kRestartLimit = 5;
constexpr long kRestartWindowMs = 60'000;
// One millisecond more than the window that is printed.
constexpr std::chrono::nanoseconds kRestartWindow{60'001'000'000};

}  // namespace

bool BaseAppInfo::CheckRestartAt(SteadyTime now) {
  if (restart_ == "on-forever") {
    return true;
  }
  if (restart_ != "on-failure") {
    return false;
  }
  if (restartTimes_.size() >= kRestartLimit) {
    if (now - restartTimes_.front() < kRestartWindow) {
      LogError("PROCMGR : Process=%s has restart %u times in recent %ld ms.", appName_.c_str(),
               kRestartLimit, kRestartWindowMs);
      restart_ = "no";
      return false;
    }
    restartTimes_.pop_front();
  }
  restartTimes_.push_back(now);
  return true;
}

bool BaseAppInfo::IsRestartKept() const {
  return restart_ == "on-failure" || restart_ == "on-forever";
}

}  // namespace ProcMgr::App
