#include "host/core_affinity_mgr.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "base/dir_stream.h"
#include "base/raw_calls.h"
#include "base/small_file.h"
#include "base/standard_path.h"
#include "base/text.h"
#include "core/log.h"

namespace ProcMgr {

// Those that are configured: the number of those that are online shrinks with each that isn't,
// whichever it is.
const std::uint32_t cpuCount = static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_CONF));

namespace {

// The width of the mask that is handed to the kernel.
constexpr std::uint32_t kMaskBits = 1024;
static_assert(sizeof(cpu_set_t) * 8 == kMaskBits);

bool Holds(const std::vector<std::uint32_t>& cores, std::uint32_t core) {
  return std::find(cores.begin(), cores.end(), core) != cores.end();
}

std::string TaskDir(pid_t pid) {
  return "/proc/" + std::to_string(pid) + "/task/";
}

}  // namespace

CoreAffinityMgr& CoreAffinityMgr::Instance() {
  static CoreAffinityMgr manager;
  return manager;
}

CoreAffinityMgr::CoreAffinityMgr(CpusetPaths paths) : paths_(std::move(paths)) {}

void CoreAffinityMgr::LoadCpuInfo() {
  if (ctrlCpus_.empty()) {
    ParseCpuFile(paths_.ctrlCpus, ctrlCpus_);
  }
  if (aiCpus_.empty()) {
    ParseCpuFile(paths_.aiCpus, aiCpus_);
  }
}

bool CoreAffinityMgr::GetTids(pid_t pid, std::set<std::uint32_t>& tids) {
  const std::string path = TaskDir(pid);
  const DirStream directory(opendir(path.c_str()));
  if (directory == nullptr) {
    LogError("opendir %s fail, errno: %d", path.c_str(), errno);
    return false;
  }
  while (const dirent* const entry = readdir(directory.get())) {
    if (const auto tid = ParseNumber<std::uint32_t>(entry->d_name)) {
      tids.insert(*tid);
    }
  }
  return true;
}

bool CoreAffinityMgr::GetThreadName(pid_t pid, std::uint32_t tid, char* name, std::size_t size) {
  std::string path = TaskDir(pid) + std::to_string(tid) + "/status";
  if (!StandardizationPath(path, path)) {
    return false;  // The thread is gone.
  }
  std::string status;
  if (const int error = ReadSmallFile(path, kConfigFileLimit, status); error != 0) {
    // ESRCH is a thread that ended between the open and the read, which is no fault.
    if (error != ESRCH) {
      LogError("fopen %s fail, errno: %d", path.c_str(), error);
    }
    errno = error;
    return false;
  }
  constexpr std::string_view kLabel = "Name:\t";
  const std::string_view line = std::string_view(status).substr(0, status.find('\n'));
  if (!line.starts_with(kLabel) || size == 0) {
    errno = EINVAL;
    return false;
  }
  const std::size_t length = line.substr(kLabel.size()).copy(name, size - 1);
  std::memset(name + length, 0, size - length);
  return true;
}

bool CoreAffinityMgr::CheckTidIsValid(pid_t pid, std::uint32_t tid, const ThreadCoreInfo& info) {
  std::array<char, 16> name{};
  return GetThreadName(pid, tid, name.data(), name.size()) && info.pid == pid &&
         std::strncmp(info.name.data(), name.data(), name.size()) == 0;
}

std::uint32_t CoreAffinityMgr::SetCoreAffinityToOs(pid_t id,
                                                   const std::vector<std::uint32_t>& cores,
                                                   std::string& err) const {
  const CoreBinding binding = PlanBinding(cores);
  LogMissingAiTasks(id, binding);
  ErrText text;
  const std::uint32_t result = Bind(id, binding, text);
  err += text.View();
  return result;
}

CoreBinding CoreAffinityMgr::PlanBinding(const std::vector<std::uint32_t>& cores) const {
  CoreBinding binding;
  binding.hasCores = !cores.empty() || !ctrlCpus_.empty();
  CPU_ZERO(&binding.mask);
  for (const std::uint32_t core : cores.empty() ? ctrlCpus_ : cores) {
    if (core >= cpuCount) {
      continue;
    }
    binding.aiCores += IsAiCpu(core) ? 1 : 0;
    if (core < kMaskBits) {
      CPU_SET(core, &binding.mask);
    }
  }
  binding.hasAiTasks = binding.aiCores > 0 && RawExists(paths_.aiTasks.c_str());
  return binding;
}

std::uint32_t CoreAffinityMgr::Bind(pid_t id, const CoreBinding& binding, ErrText& err) const {
  if (!binding.hasCores) {
    err.Add("default ctrl cpu is null;");
    return kNoCtrlCpus;
  }
  // The kernel cuts a mask to the cpuset of the task, so the cpuset comes first.
  for (std::uint32_t i = 0; binding.hasAiTasks && i < binding.aiCores; ++i) {
    WriteTidToAIcpuSet(id);
  }
  if (const long result = RawCall(SYS_sched_setaffinity, id, sizeof(binding.mask), &binding.mask);
      result < 0) {
    err.Add("SetCoreAffinity fail pid=").AddNumber(id).Add(", errno=").AddNumber(-result).Add(";");
    return kCoreMaskRefused;
  }
  return kCoreAffinityOk;
}

void CoreAffinityMgr::LogMissingAiTasks(pid_t id, const CoreBinding& binding) const {
  for (std::uint32_t i = 0; !binding.hasAiTasks && i < binding.aiCores; ++i) {
    LogError("WriteTidToAIcpuSet failed tid: %d, aicpuSet: %s is not existed", id,
             paths_.aiTasks.c_str());
  }
}

std::uint32_t CoreAffinityMgr::StoreAndSetCoreAffinity(pid_t pid, std::uint32_t tid,
                                                       const std::vector<std::uint32_t>& cores) {
  LogInfo("StoreAndSetCoreAffinity pid:%d tid:%d", pid, static_cast<int>(tid));
  ThreadCoreInfo info{pid, cores, {}};
  if (!GetThreadName(pid, tid, info.name.data(), info.name.size())) {
    LogError("GetThreadName fail, pid:%d tid:%d, errno: %d", pid, static_cast<int>(tid), errno);
    return kThreadNameUnreadable;
  }
  {
    const MutexLock lock(threadCoreInfoMutex_);
    threadCoreInfos_.insert_or_assign(tid, std::move(info));
  }
  std::string err;
  const std::uint32_t result = SetCoreAffinityToOs(static_cast<pid_t>(tid), cores, err);
  if (result != kCoreAffinityOk) {
    LogError("SetCoreAffinityToOs fail, pid:%d, tid:%d, errStr: %s", pid, static_cast<int>(tid),
             err.c_str());
  }
  return result;
}

bool CoreAffinityMgr::RecoverCoreAffinity(const std::vector<AppCoreInfo>& apps) {
  std::string recovered;
  for (const AppCoreInfo& app : apps) {
    const auto pid = static_cast<pid_t>(app.pid);
    std::set<std::uint32_t> tids;
    if (!GetTids(pid, tids)) {
      LogError("CoreAffinityMgr GetTids fail, pid:%d", pid);
      continue;
    }
    const MutexLock lock(threadCoreInfoMutex_);
    for (const std::uint32_t tid : tids) {
      recovered += std::to_string(tid) + ",";
      RecoverThread(pid, tid, app.cores);
    }
  }
  LogInfo("CoreAffinityMgr WakeUpRecover tid:%s", recovered.c_str());
  return true;
}

void CoreAffinityMgr::RecoverThread(pid_t pid, std::uint32_t tid,
                                    const std::vector<std::uint32_t>& appCores) {
  const auto record = threadCoreInfos_.find(tid);
  const bool isRemembered = record != threadCoreInfos_.end();
  if (isRemembered) {
    if (!CheckTidIsValid(pid, tid, record->second)) {
      LogWarning("CoreAffinityMgr WakeUpRecover CheckTidIsValid fail, pid:%d, tid:%u", pid, tid);
      threadCoreInfos_.erase(record);
      return;
    }
    LogInfo("CoreAffinityMgr WakeUpRecover CheckTidIsValid success, pid:%d, tid:%u", pid, tid);
  }
  std::string err;
  if (SetCoreAffinityToOs(static_cast<pid_t>(tid), isRemembered ? record->second.cores : appCores,
                          err) != kCoreAffinityOk) {
    LogWarning("RecoverCoreAffinity SetCoreAffinityToOs failed, pid:%d, tid:%u, err=%s", pid, tid,
               err.c_str());
  }
}

void CoreAffinityMgr::RecycleThreadCoreInfo(pid_t pid, const std::string& appName) {
  const MutexLock lock(threadCoreInfoMutex_);
  const auto record = std::find_if(threadCoreInfos_.begin(), threadCoreInfos_.end(),
                                   [pid](const auto& entry) { return entry.second.pid == pid; });
  if (record != threadCoreInfos_.end()) {
    LogInfo("RecycleThreadCoreInfo finished app: %s, tid: %u, pid: %d", appName.c_str(),
            record->first, pid);
    threadCoreInfos_.erase(record);
  }
}

void CoreAffinityMgr::CheckThreadCoreInfos() {
  const MutexLock lock(threadCoreInfoMutex_);
  std::erase_if(threadCoreInfos_, [](const auto& entry) {
    return !CheckTidIsValid(entry.second.pid, entry.first, entry.second);
  });
}

bool CoreAffinityMgr::CheckIsCtrlCpu(const std::string& appName,
                                     const std::vector<std::uint32_t>& cores) const {
  const auto stranger = std::find_if(
      cores.begin(), cores.end(), [this](std::uint32_t core) { return !Holds(ctrlCpus_, core); });
  if (stranger != cores.end()) {
    LogError("CheckIsCtrlCpu app=%s, coreId=%u is not in CtrlCpu", appName.c_str(), *stranger);
    return false;
  }
  return true;
}

bool CoreAffinityMgr::IsAiCpu(std::uint32_t core) const {
  return core < cpuCount && Holds(aiCpus_, core);
}

void CoreAffinityMgr::WriteTidToAIcpuSet(pid_t tid) const {
  // If it is refused, the kernel cuts the mask to the old cpuset, and the call for the mask tells.
  (void)AppendId(paths_.aiTasks.c_str(), tid);
}

}  // namespace ProcMgr
