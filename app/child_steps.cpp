#include "app/child_steps.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include "base/child_msg_pipe.h"
#include "base/last_words.h"
#include "base/raw_calls.h"

namespace ProcMgr::App {
namespace {

// What the kernel takes, which is neither of libc's types: the handler comes first, and zeros
// everywhere mean the default action.
using KernelAction = std::array<unsigned long, 4>;
constexpr std::size_t kSignalSetBytes = 8;
constexpr int kLastSignal = 64;

// The manager's handlers keep its own books, so none may run here once the signals are let in. What
// it ignores stays ignored.
void ResetDispositions() {
  for (int signal = 1; signal <= kLastSignal; ++signal) {
    KernelAction action{};
    const long result = RawCall(SYS_rt_sigaction, signal, nullptr, action.data(), kSignalSetBytes);
    const auto ignored = reinterpret_cast<unsigned long>(SIG_IGN);
    if (result == 0 && action[0] != 0 && action[0] != ignored) {
      const KernelAction byDefault{};
      (void)RawCall(SYS_rt_sigaction, signal, byDefault.data(), nullptr, kSignalSetBytes);
    }
  }
}

// The manager's threads block signals that they wait for; an application starts with none blocked.
void ResetSignalMask() {
  const std::uint64_t none = 0;
  (void)RawCall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, kSignalSetBytes);
}

void SetRtPrioLimit(bool flag, ErrText& err) {
  if (!flag) {
    return;
  }
  rlimit limit{};
  if (const long result = RawCall(SYS_prlimit64, 0, RLIMIT_RTPRIO, nullptr, &limit); result < 0) {
    err.Add("getrlimit failed,errno=").AddNumber(-result).Add(";");
    return;
  }
  constexpr rlim_t kTopPriority = 99;
  limit = {kTopPriority, kTopPriority};
  if (const long result = RawCall(SYS_prlimit64, 0, RLIMIT_RTPRIO, &limit, nullptr); result < 0) {
    err.Add("prlimit failed,errno=").AddNumber(-result).Add(";");
  }
}

void AddNice(std::int32_t nice) {
  if (nice == 0) {
    return;
  }
  // The kernel tells 20 minus the niceness, and cuts what it is given to its range.
  const long own = 20 - RawCall(SYS_getpriority, PRIO_PROCESS, 0);
  (void)RawCall(SYS_setpriority, PRIO_PROCESS, 0, own + nice);
}

// The groups follow the user's own entries, its primary group included, and not the configured gid.
bool SetGroups(const LaunchPlan& plan, ErrText& err) {
  switch (plan.user.result) {
    case UserGroupsResult::kUnknownUser:
      err.Add("getpwuid is null;");
      return false;
    case UserGroupsResult::kWipeFailed:
      err.Add("SetGroups memset_s failed error=").AddNumber(plan.user.wipeError).Add(";");
      return false;
    case UserGroupsResult::kTooManyGroups:
      return false;
    case UserGroupsResult::kOk:
      break;
  }
  return RawCall(SYS_setgroups, plan.user.groups.count, plan.user.groups.ids.data()) == 0;
}

bool SetAppGid(gid_t gid, ErrText& err) {
  if (const long result = RawCall(SYS_setgid, gid); result < 0) {
    err.Add("SetAppGid=").AddNumber(gid).Add(" failed error=").AddNumber(-result).Add(";");
    return false;
  }
  return true;
}

bool SetAppUid(uid_t uid, ErrText& err) {
  if (const long result = RawCall(SYS_setuid, uid); result < 0) {
    err.Add("SetAppUid=").AddNumber(uid).Add(",failed error=").AddNumber(-result).Add(";");
    return false;
  }
  return true;
}

bool SetAppUidAndGid(const LaunchPlan& plan, ErrText& err) {
  return SetGroups(plan, err) && SetAppGid(plan.gid, err) && SetAppUid(plan.uid, err);
}

void InitAccess(const AppConfig& config, ErrText& err) {
  errno = 0;
  if (IAMInitProc(config) < 0) {
    const int error = errno;
    err.Add("IAMInitProc failed, errno=").AddNumber(error).Add(";");
  }
}

// Entries that came behind the library's turn win over what the library may have set.
void AddEntriesBehindAccess(const LaunchPlan& plan) {
  for (char* const* entry = plan.env.Pointers(); *entry != nullptr; ++entry) {
    if (std::find(plan.accessEnv.begin(), plan.accessEnv.end(), *entry) == plan.accessEnv.end()) {
      (void)putenv(*entry);
    }
  }
}

// Yields the environment for the exec. A library that needs memory of its own also finds the
// application's environment as its own, and may change it.
char* const* SetupEnv(const LaunchPlan& plan, ErrText& err) {
  err.Add(plan.envErr);
  if (plan.needsOwnMemory) {
    environ = const_cast<char**>(plan.accessEnv.data());
  }
  InitAccess(plan.config, err);
  if (plan.needsOwnMemory) {
    AddEntriesBehindAccess(plan);
  }
  err.Add(plan.envErrBehindAccess);
  return plan.needsOwnMemory ? environ : plan.env.Pointers();
}

[[noreturn]] PM_NEVER_LEFT void Exit(int code) {
  for (;;) {
    (void)RawCall(SYS_exit_group, code);
  }
}

void TellManager(const LaunchPlan& plan, pid_t self, const ErrText& text) {
  WriteChildMsg(plan.config.appName, self, text.View());
}

[[noreturn]] PM_NEVER_LEFT void Fail(const LaunchPlan& plan, pid_t self, const ErrText& text) {
  KeepLastWords(self, text.View());
  TellManager(plan, self, text);
  Exit(1);
}

[[noreturn]] PM_NEVER_LEFT void Exec(const LaunchPlan& plan, pid_t self, char* const* env) {
  RestoreDescriptorLimit();
  const long result = RawCall(SYS_execve, plan.config.execPath.c_str(), plan.argv.data(), env);
  ErrText text;
  text.Add(plan.execErr).AddNumber(-result).Add(";");
  if (result == -EIO) {
    KeepLastWords(self, text.View());
    Exit(kExitCodeEio);
  }
  Fail(plan, self, text);
}

}  // namespace

void RunChild(const LaunchPlan& plan, Handlers handlers) {
  if (handlers == Handlers::kInherited) {
    ResetDispositions();
  }
  ResetSignalMask();
  const auto self = static_cast<pid_t>(RawCall(SYS_getpid));
  ErrText err;
  SetRtPrioLimit(plan.isSetRtPrio, err);
  AddNice(plan.nice);
  if (ErrText policyErr; !SetMemPolicy(plan.config.appName, plan.memPolicy, policyErr)) {
    Fail(plan, self, policyErr);
  }
  // A missing group is told and the start goes on outside it.
  (void)EnterCgroups(plan.cgroups, self, err);
  if (!SetAppUidAndGid(plan, err)) {
    Fail(plan, self, err);
  }
  char* const* const env = SetupEnv(plan, err);
  if (plan.isBound) {
    // The reason of a failure is in the text.
    (void)CoreAffinityMgr::Instance().Bind(self, plan.binding, err);
  }
  SetSchedPolicy(self, plan.schedPolicy, err);
  if (!err.IsEmpty()) {
    TellManager(plan, self, err);
  }
  Exec(plan, self, env);
}

}  // namespace ProcMgr::App
