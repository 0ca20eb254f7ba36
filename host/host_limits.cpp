#include "host/host_limits.h"

#include <sched.h>
#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "base/raw_calls.h"
#include "base/small_file.h"
#include "base/text.h"
#include "base/text_lines.h"
#include "core/log.h"

namespace ProcMgr {

std::string homeEnvValue;

namespace {

constexpr std::string_view kLimitKey = "MAX_LOCKED_MEMORY_LIMIT=";
constexpr std::uint64_t kUnlimited = ~std::uint64_t{0};
static_assert(RLIM_INFINITY == kUnlimited);
// Far above what the C library takes for a line of the user database.
constexpr std::size_t kMaxPasswdLine = 16384;

// A value as a line of the log shows it: the newline that belongs to it would be told as "\x0a".
std::string Shown(const std::string& value) {
  return value.substr(0, value.find_last_not_of('\n') + 1);
}

// The number that `value`, a rest of a line with its newline, begins with. What isn't wholly a
// number of bytes is used as strtoull reads it, for that has always been its meaning, but not
// silently.
std::uint64_t ToBytes(const std::string& value) {
  const std::string_view digits(value.data(), value.find_last_not_of(" \t\r\n") + 1);
  if (!ParseNumber<std::uint64_t>(digits)) {
    LogWarning("PROCMGR: GetLockedMemoryLimitFromCfg value=%s is no number of bytes",
               Shown(value).c_str());
  }
  return std::strtoull(value.c_str(), nullptr, 10);
}

// As the starter left it; nothing is given back if it wasn't raised.
std::optional<rlimit> foundDescriptorLimit;

}  // namespace

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return;
  }
  const rlimit found = limit;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
    foundDescriptorLimit = found;
  }
}

void RestoreDescriptorLimit() {
  if (foundDescriptorLimit.has_value()) {
    (void)RawCall(SYS_prlimit64, 0, RLIMIT_NOFILE, &*foundDescriptorLimit, nullptr);
  }
}

void SetLockedMemoryLimit(const std::string& path) {
  const std::uint64_t value = GetLockedMemoryLimitFromCfg(path);
  const rlimit limit{value, value};
  if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0) {
    LogErrorRouted("PROCMGR: setrlimit failed : errno=%d, cfg=%s, value=%lu", errno, path.c_str(),
                   value);
    return;
  }
  LogInfoRouted("PROCMGR: SetLockedMemoryLimit success limit value=%lu ", value);
}

std::uint64_t GetLockedMemoryLimitFromCfg(const std::string& path) {
  std::string text;
  if (const int error = ReadSmallFile(path, kConfigFileLimit, text); error != 0) {
    LogWarning("GetLockedMemoryLimitFromCfg fopen %s fail,errno=%d, return default", path.c_str(),
               error);
    return kUnlimited;
  }
  return ParseLockedMemoryLimit(text);
}

std::uint64_t ParseLockedMemoryLimit(std::string_view text) {
  while (!text.empty()) {
    // Only a line that begins with the key has its value where it is looked for; in a comment that
    // mentions the key, the rest of the key itself would be read as the number 0.
    const std::string_view line = TakeRawLine(text);
    if (!line.starts_with(kLimitKey)) {
      continue;
    }
    const std::string value(line.substr(kLimitKey.size()));
    if (value.find("unlimited") != std::string::npos) {
      LogInfo("PROCMGR: GetLockedMemoryLimitFromCfg limit is unlimited");
      return kUnlimited;
    }
    LogInfo("PROCMGR: GetLockedMemoryLimitFromCfg limit value=%s", Shown(value).c_str());
    return ToBytes(value);
  }
  LogInfo("PROCMGR: GetLockedMemoryLimitFromCfg not find %s limit cfg, return default",
          kLimitKey.data());
  return kUnlimited;
}

void InquireHomeEnvVariable(const std::string& path, const std::string& key) {
  std::string line;
  const auto isWanted = [&line, &key](std::string_view text, std::size_t) {
    const bool isFound = text.find(key) != std::string_view::npos;
    if (isFound) {
      line = text;
    }
    return !isFound;
  };
  if (const int error = ReadLines(path, kMaxPasswdLine, isWanted); error != 0) {
    LogErrorRouted("fopen %s fail, errno=%d", path.c_str(), error);
    return;
  }
  if (line.empty()) {
    LogInfoRouted("PROCMGR: InquireHomeEnvVariable not find %s env", key.c_str());
    return;
  }
  // name:password:uid:gid:comment:HOME:shell
  const std::size_t begin = line.find('/');
  const std::size_t end = line.rfind(':');
  if (begin == std::string::npos || end == std::string::npos || end < begin) {
    LogWarningRouted("PROCMGR: InquireHomeEnvVariable line of %s has no home directory",
                     key.c_str());
    return;
  }
  homeEnvValue = line.substr(begin, end - begin);
  LogInfoRouted("PROCMGR: InquireHomeEnvVariable finished home env=%s ", homeEnvValue.c_str());
}

void SetSchedPolicy(pid_t pid, std::uint32_t policy, ErrText& err) {
  if (policy == kSchedPolicyKeep) {
    return;
  }
  constexpr std::array kKernelPolicies = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, SCHED_FIFO,
                                          SCHED_RR};
  static_assert(kKernelPolicies[kSchedPolicyFifo] == SCHED_FIFO);
  const int kernelPolicy = policy < kKernelPolicies.size() ? kKernelPolicies[policy] : SCHED_OTHER;
  sched_param param{};
  param.sched_priority = static_cast<int>(RawCall(SYS_sched_get_priority_max, kernelPolicy));
  if (const long result = RawCall(SYS_sched_setscheduler, pid, kernelPolicy, &param); result < 0) {
    err.Add("sched_setscheduler failed errno=").AddNumber(-result).Add(";");
  }
}

}  // namespace ProcMgr
