#include "host/cgroups.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/names.h"
#include "base/small_file.h"
#include "core/host_context.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

std::string TasksPath(const char* root, const std::string& group) {
  return root + group + "/tasks";
}

bool IsPlaced(const std::string& group) {
  return !group.empty() && group.find("..") == std::string::npos;
}

bool TasksExist(const std::string& path, const char* hierarchy, std::string& err) {
  if (access(path.c_str(), F_OK) == 0) {
    return true;
  }
  err +=
      std::string("add cgroup failed, ") + hierarchy + " cgroup path=" + path + " is not existed;";
  return false;
}

}  // namespace

bool AddPidToCgroupTasks(const CgroupInfo& info, std::string& err, const CgroupRoots& roots) {
  if (IsPlaced(info.resGroupName)) {
    const std::string cpuPath = TasksPath(roots.cpu, info.resGroupName);
    const std::string memoryPath = TasksPath(roots.memory, info.resGroupName);
    if (!TasksExist(cpuPath, "cpu", err) || !TasksExist(memoryPath, "mem", err)) {
      return false;
    }
    // A refused write leaves the process in the group that it inherited, and it runs on there.
    (void)AppendId(cpuPath, info.pid);
    (void)AppendId(memoryPath, info.pid);
  }
  if (IsPlaced(info.cpuset)) {
    const std::string cpusetPath = TasksPath(roots.cpuset, info.cpuset);
    if (!TasksExist(cpusetPath, "cpuset", err)) {
      return false;
    }
    (void)AppendId(cpusetPath, info.pid);
  }
  return true;
}

void AddPmTids(const std::set<std::uint32_t>& tids, const CgroupRoots& roots) {
  for (const std::uint32_t tid : tids) {
    const CgroupInfo info{kManagerName, static_cast<pid_t>(tid), kDefaultResGroup, kDefaultCpuset};
    std::string err;
    if (!AddPidToCgroupTasks(info, err, roots)) {
      LogWarning("Add pm tids to cgroup tasks failed, errinfo=%s, tid=%u", err.c_str(), tid);
    }
  }
}

void AddPmToCgroupTasks(const CgroupRoots& roots) {
  const pid_t pid = HostContext::Instance().pid_;
  AddPmTids({static_cast<std::uint32_t>(pid)}, roots);

  // A failed scan has been logged and leaves its set empty.
  std::set<std::uint32_t> first;
  (void)CoreAffinityMgr::GetTids(pid, first);
  AddPmTids(first, roots);

  // A thread that started while the first scan's threads were being placed inherited its creator's
  // old groups if its creator's turn hadn't come yet; the second scan finds it.
  std::set<std::uint32_t> second;
  (void)CoreAffinityMgr::GetTids(pid, second);
  std::set<std::uint32_t> late;
  std::set_difference(second.begin(), second.end(), first.begin(), first.end(),
                      std::inserter(late, late.end()));
  AddPmTids(late, roots);
}

}  // namespace ProcMgr
