// How a process is told to end, and how its end is read.
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "app/app_info.h"
#include "base/last_words.h"
#include "base/names.h"
#include "core/log.h"
#include "status/memory.h"

namespace ProcMgr::App {
namespace {

void LogSignalling(int signal, const char* name, pid_t pid) {
  LogInfo("PROCMGR : SendSignal: %d to app=%s, pid=%d", signal, name, pid);
}

void LogKillFailed(const char* name, pid_t pid, int error) {
  LogError("PROCMGR : SendSignal failed: kill failed appName=%s, pid=%d, errno=%d", name, pid,
           error);
}

void LogSignalSent(int signal, const char* name, pid_t pid) {
  switch (signal) {
    case SIGTERM:
      LogInfo("PROCMGR : SendSignal: Successfully term appName=%s, pid=%d", name, pid);
      break;
    case SIGKILL:
      LogInfo("PROCMGR : SendSignal: Successfully kill appName=%s, pid=%d", name, pid);
      break;
    case SIGINT:
      LogInfo("PROCMGR : SendSignal: Successfully interrupt appName=%s, pid=%d", name, pid);
      break;
    default:
      LogInfo("PROCMGR : SendSignal: Successfully send %d to appName=%s, pid=%d", signal, name,
              pid);
      break;
  }
}

void LogDeathBySignal(int signal, const char* name, pid_t pid) {
  switch (signal) {
    case SIGABRT:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by calling abort(), signal=%d", name, pid,
                 signal);
      break;
    case SIGILL:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by illegal instruction by signal=%d",
                 name, pid, signal);
      break;
    case SIGTRAP:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by trap signal=%d", name, pid, signal);
      break;
    case SIGINT:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by interrupt signal=%d", name, pid,
                 signal);
      break;
    case SIGTERM:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by calling Term(), signal=%d", name, pid,
                 signal);
      break;
    case SIGSTOP:
      LogWarning("PROCMGR : Process=%s, pid=%d stopped by signal=%d", name, pid, signal);
      break;
    case SIGKILL:
      LogWarning("PROCMGR : Process=%s, pid=%d terminated by calling Kill(), signal=%d", name, pid,
                 signal);
      break;
    default:
      LogError("PROCMGR : Process=%s, pid=%d got unexpected signal=%d", name, pid, signal);
      break;
  }
}

}  // namespace

bool SendSignal(int signal, const std::string& appName, pid_t pid) {
  if (pid < 1) {
    LogError("PROCMGR : SendSignal failed: appName %s's pid=%d is invalid", appName.c_str(), pid);
    return false;
  }
  LogSignalling(signal, appName.c_str(), pid);
  if (kill(pid, signal) != 0) {
    LogKillFailed(appName.c_str(), pid, errno);
    return false;
  }
  LogSignalSent(signal, appName.c_str(), pid);
  return true;
}

void LogExitStatus(int status, const std::string& appName, pid_t pid) {
  constexpr int kSignalBits = 0x7f;
  constexpr int kCoreBit = 0x80;
  const char* const name = appName.c_str();
  const int signal = status & kSignalBits;
  if (signal == 0) {
    LogWarning("PROCMGR : Process=%s, pid=%d was self terminated, the exit status is %d.", name,
               pid, WEXITSTATUS(status));
  } else if (signal == kSignalBits) {
    LogWarning("PROCMGR : Process=%s, pid=%d was unexpectedly terminated", name, pid);
  } else if ((status & kCoreBit) != 0) {
    LogError("PROCMGR: Process=%s, pid=%d was coredump", name, pid);
  } else {
    LogDeathBySignal(signal, name, pid);
  }
}

bool AppInfo::Signal(int signal) const {
  if (isExited_) {
    // Whether the reaper or the kernel knows first that it has gone, the log says the same.
    LogSignalling(signal, appName_.c_str(), pid_);
    LogKillFailed(appName_.c_str(), pid_, ESRCH);
    return false;
  }
  return SendSignal(signal, appName_, pid_);
}

bool AppInfo::TermProcess() {
  if (pid_ < 1) {
    LogError("PROCMGR : TermProcess failed: the pid=%d is invalid", pid_);
    return false;
  }
  // Whatever became of the signal: a process that has gone is dealt with by its exit status.
  (void)Signal(SIGTERM);
  return true;
}

void AppInfo::KillProcess() const {
  // Whatever became of the signal, as above.
  (void)Signal(SIGKILL);
}

void BaseAppInfo::EndForGood() {
  restart_ = "no";
  Status::Memory::Instance().NoteEndForGood(statusId_);
  (void)TermProcess();
}

void GeneralAppInfo::EndForGood() {
  Status::Memory::Instance().NoteEndForGood(statusId_);
  SetTermBeginTime();
  (void)TermProcess();
  state_ = ProcessState::TERMINATING;
  isKillSent_ = true;
}

void AppInfo::SetExitStatus(int status) {
  exitStatus_ = status;
  isExited_ = true;
  Status::Memory::Instance().NoteExit(statusId_, pid_, status, IsSuccess(), TakeLastWords(pid_));
  LogInfo("PROCMGR : SetExitStatus %s, pid=%d", appName_.c_str(), pid_);
}

int AppInfo::ProbeProcess() const {
  siginfo_t info{};
  // WNOWAIT: what the probe sees stays there, for the reaper above all.
  const int options = WEXITED | WSTOPPED | WCONTINUED | WNOHANG | WNOWAIT;
  if (isExited_ || waitid(P_PID, static_cast<id_t>(pid_), &info, options) != 0) {
    return 1;
  }
  if (info.si_pid == pid_ && info.si_code == CLD_STOPPED) {
    LogInfo("PROCMGR : app=%s, pid=%d, stopped", appName_.c_str(), pid_);
    return 2;
  }
  return 0;
}

bool AppInfo::IsSuccess() const {
  return WIFEXITED(exitStatus_) && WEXITSTATUS(exitStatus_) == 0;
}

void AppInfo::ClassifyExit() {
  LogExitStatus(exitStatus_, appName_, pid_);
  isTerminatedByEio_ = WIFEXITED(exitStatus_) && WEXITSTATUS(exitStatus_) == kExitCodeEio;
  if (IsSuccess() && restart_ == "on-until-succeed" && ownerName_ == kAccessService) {
    reportState_ = ReportAppStateType::TERMINATED_NORMAL_EXIT;
    LogInfo("PROCMGR : non resident app=%s normal exit", appName_.c_str());
  } else {
    reportState_ = ReportAppStateType::TERMINATED_ABNORMAL_EXIT;
  }
}

}  // namespace ProcMgr::App
