#include "host/cgroups.h"

#include <algorithm>
#include <iterator>

#include "base/names.h"
#include "base/raw_calls.h"
#include "base/small_file.h"
#include "core/host_context.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

// Empty for a group that nothing is entered in.
std::string TasksPath(const std::string& root, const std::string& group) {
  const bool isPlaced = !group.empty() && group.find("..") == std::string::npos;
  return isPlaced ? root + group + "/tasks" : "";
}

bool TasksExist(const std::string& path, const char* hierarchy, ErrText& err) {
  if (RawExists(path.c_str())) {
    return true;
  }
  err.Add("add cgroup failed, ").Add(hierarchy).Add(" cgroup path=").Add(path);
  err.Add(" is not existed;");
  return false;
}

}  // namespace

CgroupTasks FindCgroupTasks(const std::string& resGroupName, const std::string& cpuset,
                            const CgroupRoots& roots) {
  return {TasksPath(roots.cpu, resGroupName), TasksPath(roots.memory, resGroupName),
          TasksPath(roots.cpuset, cpuset)};
}

bool EnterCgroups(const CgroupTasks& tasks, pid_t id, ErrText& err) {
  if (!tasks.cpu.empty()) {
    if (!TasksExist(tasks.cpu, "cpu", err) || !TasksExist(tasks.memory, "mem", err)) {
      return false;
    }
    // A refused write leaves the process in the group that it inherited, and it runs on there.
    (void)AppendId(tasks.cpu.c_str(), id);
    (void)AppendId(tasks.memory.c_str(), id);
  }
  if (!tasks.cpuset.empty()) {
    if (!TasksExist(tasks.cpuset, "cpuset", err)) {
      return false;
    }
    (void)AppendId(tasks.cpuset.c_str(), id);
  }
  return true;
}

bool AddPidToCgroupTasks(const CgroupInfo& info, std::string& err, const CgroupRoots& roots) {
  ErrText text;
  const bool isPlaced =
      EnterCgroups(FindCgroupTasks(info.resGroupName, info.cpuset, roots), info.pid, text);
  err += text.View();
  return isPlaced;
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
