// The state machine of both kinds of record; app/app_info.h tells its states and moves.

#include <chrono>
#include <csignal>

#include "app/app_info.h"
#include "core/log.h"

namespace ProcMgr::App {

using enum ProcessState;
using enum ReportAppStateType;

void AppInfo::LogUnexpectedState() const {
  LogError("PROCMGR : Process %s got unexpected state=%d", appName_.c_str(),
           static_cast<int>(state_));
}

ProcessState AppInfo::CheckStarting() {
  if (isExited_) {
    ClassifyExit();
    LogInfo("PROCMGR : STARTING to TERMINATED appName=%s, pid=%d", appName_.c_str(), pid_);
    return TERMINATED;
  }
  if (isReporting_) {
    return STARTING;
  }
  reportState_ = RUNNING_NORMAL_START;
  LogInfo("PROCMGR : STARTING to RUNNING appName=%s, pid=%d", appName_.c_str(), pid_);
  return RUNNING;
}

ProcessState AppInfo::CheckRunning() {
  if (!isExited_) {
    return RUNNING;
  }
  ClassifyExit();
  LogInfo("PROCMGR : RUNNING to TERMINATED appName=%s, pid=%d", appName_.c_str(), pid_);
  return TERMINATED;
}

ProcessState BaseAppInfo::CheckState() {
  isTerminatedByEio_ = false;
  reportState_ = INVALID_INTERMEDIATE_STATE;
  if (pid_ < 1) {
    LogError("CheckState : pid <= 0, don't call waitpid(), currentState=%d",
             static_cast<int>(state_));
    return state_;
  }
  switch (state_) {
    case STARTING:
      return CheckStarting();
    case RUNNING:
      return CheckRunning();
    case TERMINATING:
      if (!isExited_) {
        return TERMINATING;
      }
      reportState_ = TERMINATED_NORMAL_EXIT;
      LogInfo("PROCMGR : TERMINATING to TERMINATED appName=%s, pid=%d", appName_.c_str(), pid_);
      LogExitStatus(exitStatus_, appName_, pid_);
      return TERMINATED;
    case TERMINATED:
      reportState_ = TERMINATED_ABNORMAL_EXIT;
      LogError("PROCMGR : Process %s got unexpected TERMINATED state", appName_.c_str());
      return TERMINATED;
    case INITSTATE:
    case RESTARTING:
      LogUnexpectedState();
      return state_;
  }
  return state_;
}

ProcessState GeneralAppInfo::CheckStateAt(SteadyTime now) {
  if (pid_ < 1) {
    LogError("CheckState : pid <= 0, don't call waitpid(), currentState=%d",
             static_cast<int>(state_));
    return state_;
  }
  isTerminatedByEio_ = false;
  if (state_ == TERMINATED) {
    LogError("PROCMGR : Process %s got unexpected TERMINATED state", appName_.c_str());
    return TERMINATED;
  }
  reportState_ = INVALID_INTERMEDIATE_STATE;
  switch (state_) {
    case STARTING:
      return CheckStarting();
    case RUNNING:
      return CheckRunning();
    case TERMINATING:
      return CheckTerminating(now);
    case RESTARTING:
      return CheckRestarting(now);
    case INITSTATE:
    case TERMINATED:
      break;
  }
  LogUnexpectedState();
  return state_;
}

namespace {

std::int64_t ElapsedMs(SteadyTime since, SteadyTime now) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(now - since).count();
}

}  // namespace

bool GeneralAppInfo::IsTermTimeUp(SteadyTime now) const {
  return ElapsedMs(termBeginTime_, now) >= static_cast<std::int64_t>(termTimeOut_);
}

SteadyTime GeneralAppInfo::TermTimeEnd() const {
  const bool isRunning =
      (state_ == TERMINATING || (state_ == RESTARTING && isRestartStarted_ == 0)) && !isExited_ &&
      !isKillSent_;
  return isRunning ? termBeginTime_ + std::chrono::milliseconds(termTimeOut_) : SteadyTime::max();
}

ProcessState GeneralAppInfo::CheckTerminating(SteadyTime now) {
  if (isExited_) {
    reportState_ = TERMINATED_NORMAL_EXIT;
    LogInfo("PROCMGR : TERMINATING to TERMINATED. (appName=%s,pid=%d,cost=%ld)", appName_.c_str(),
            pid_, static_cast<long>(ElapsedMs(termBeginTime_, now)));
    LogExitStatus(exitStatus_, appName_, pid_);
    isKillSent_ = false;
    return TERMINATED;
  }
  if (isKillSent_ || !IsTermTimeUp(now)) {
    return TERMINATING;
  }
  if (isForceTerm_) {
    LogInfo(
        "PROCMGR : term timeout and forecTerm is true, so kill appName=%s, pid=%d,TERMINATING to "
        "TERMINATED",
        appName_.c_str(), pid_);
    // A failed kill is logged and not repeated: the exit is what counts.
    (void)Signal(SIGKILL);
    isKillSent_ = true;
    return TERMINATING;
  }
  reportState_ = RUNNING_ABNORMAL_TERM_TIMEOUT;
  LogInfo(
      "PROCMGR : term timeout and forecTerm is false, so not kill appName=%s, pid=%dTERMINATING to "
      "RUNNING",
      appName_.c_str(), pid_);
  return RUNNING;
}

ProcessState GeneralAppInfo::CheckRestarting(SteadyTime now) {
  if (isRestartStarted_ != 0) {
    if (isExited_) {
      ClassifyExit();
      LogInfo("PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d", appName_.c_str(), pid_);
      return TERMINATED;
    }
    reportState_ = RUNNING_NORMAL_RESTART;
    return RUNNING;
  }
  if (isExited_) {
    return StartAgain();
  }
  if (!isKillSent_ && IsTermTimeUp(now)) {
    (void)Signal(SIGKILL);
    isKillSent_ = true;
  }
  return RESTARTING;
}

// The old process of a restart has gone.
ProcessState GeneralAppInfo::StartAgain() {
  isKillSent_ = false;
  // The restart is over with the start, however that goes: a later one must not save its value.
  isForceTerm_ = savedForceTerm_;
  if (!StartProcess()) {
    reportState_ = TERMINATED_ABNORMAL_EXIT;
    LogInfo("PROCMGR : RESTARTING to TERMINATED appName=%s, pid=%d", appName_.c_str(), pid_);
    return TERMINATED;
  }
  isRestartStarted_ = 1;
  return RESTARTING;
}

}  // namespace ProcMgr::App
