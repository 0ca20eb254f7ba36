// Whether a base application that has ended is started again.
#include "app/app_info.h"
#include "base/restart_window.h"
#include "core/log.h"
#include "status/memory.h"

namespace ProcMgr::App {
namespace {

constexpr long kRestartWindowMs = 60'000;

}  // namespace

bool BaseAppInfo::CheckRestartAt(SteadyTime now) {
  if (restart_ == "on-forever") {
    return true;
  }
  if (restart_ != "on-failure") {
    return false;
  }
  if (restartTimes_.size() >= kMostRestarts) {
    if (now - restartTimes_.front() < kRestartWindow) {
      LogError("PROCMGR : Process=%s has restart %zu times in recent %ld ms.", appName_.c_str(),
               kMostRestarts, kRestartWindowMs);
      restart_ = "no";
      Status::Memory::Instance().GiveUp(statusId_);
      return false;
    }
    restartTimes_.pop_front();
  }
  restartTimes_.push_back(now);
  Status::Memory::Instance().NoteRestartTimes(statusId_, restartTimes_);
  return true;
}

bool BaseAppInfo::IsRestartKept() const {
  return restart_ == "on-failure" || restart_ == "on-forever";
}

}  // namespace ProcMgr::App
