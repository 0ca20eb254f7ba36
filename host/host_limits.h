// Facts of the host that children get: the limits on locked memory and open files, the home
// directory, and the scheduling policy.
#ifndef HOST_HOST_LIMITS_H
#define HOST_HOST_LIMITS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/fixed_text.h"

namespace ProcMgr {

inline constexpr const char* kCommonEnvFile = "/etc/vantor_common_env.conf";
inline constexpr const char* kPasswdFile = "/etc/passwd";
// The uid and gid fields of the password line whose home directory children get.
inline constexpr const char* kHomeUserKey = "1000:1000";

// The policy number that leaves a process's policy alone.
inline constexpr std::uint32_t kSchedPolicyKeep = 5;
// The policy number of SCHED_FIFO.
inline constexpr std::uint32_t kSchedPolicyFifo = 3;

// The home directory found by InquireHomeEnvVariable; empty for none. Written on the boot thread
// before the first application record exists, and only read afterwards.
extern std::string homeEnvValue;

// Sets the soft and hard limit on locked memory of the manager, which every child inherits, to what
// the file at `path` says. Boot thread.
void SetLockedMemoryLimit(const std::string& path = kCommonEnvFile);

// Raises the manager's soft limit of open files to the hard one: its channels, not its starter,
// decide how many it needs. First act of main.
void RaiseDescriptorLimit();
// Gives a child the limit that RaiseDescriptorLimit found, since a program that uses select relies
// on a low one. Its last step before the exec, for it may hold more than that until then. One
// system call.
void RestoreDescriptorLimit();

// The limit of the file at `path` in bytes; all ones (RLIM_INFINITY) means unlimited and is the
// default for a missing file or key. Text that is no number gives 0, one that doesn't fit
// unlimited.
[[nodiscard]] std::uint64_t GetLockedMemoryLimitFromCfg(const std::string& path = kCommonEnvFile);
// The same on a text in memory.
[[nodiscard]] std::uint64_t ParseLockedMemoryLimit(std::string_view text);

// Stores the home directory of the first line of the file at `path` that holds `key` in
// homeEnvValue. Boot thread.
void InquireHomeEnvVariable(const std::string& path = kPasswdFile,
                            const std::string& key = kHomeUserKey);

// Gives the process `pid` the kernel policy of a policy number, at the policy's highest priority:
// 0 other, 1 batch, 2 idle, 3 fifo, 4 round robin, 5 leaves it alone, anything else is 0. A failure
// appends its reason to `err`. For a child before its exec.
void SetSchedPolicy(pid_t pid, std::uint32_t policy, ErrText& err);

}  // namespace ProcMgr

#endif  // HOST_HOST_LIMITS_H
