#include "sandbox/cgroup_roots.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <vector>

#include "base/small_file.h"
#include "base/text.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"
#include "sandbox/wait.h"

namespace PmSandbox {
namespace {

constexpr const char* kCgroupRoot = "/sys/fs/cgroup";

std::string HierarchyRoot(std::size_t index) {
  return std::string(kCgroupRoot) + "/" + kHierarchies.at(index);
}

bool IsMounted(const std::string& root) {
  struct statfs info {};
  return statfs(root.c_str(), &info) == 0 && info.f_type == CGROUP_SUPER_MAGIC;
}

// The machine's hierarchies may be missing because it uses cgroup v2. In the private namespace they
// can still be mounted, as long as v2 has not taken the controllers. Yields what is missing.
std::string MountHierarchies() {
  if (mount("tmpfs", kCgroupRoot, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=755") != 0) {
    return std::string("there is no ") + kCgroupRoot +
           " to mount cgroup v1 hierarchies on: " + std::strerror(errno);
  }
  for (std::size_t i = 0; i < kHierarchies.size(); ++i) {
    const std::string root = HierarchyRoot(i);
    if (mkdir(root.c_str(), 0755) != 0 ||
        mount("cgroup", root.c_str(), "cgroup", 0, kHierarchies.at(i)) != 0) {
      return "this machine offers no cgroup v1 hierarchy \"" + std::string(kHierarchies.at(i)) +
             "\" (" + std::strerror(errno) +
             "); boot it with systemd.unified_cgroup_hierarchy=0 or cgroup_no_v1 unset";
    }
  }
  return {};
}

// Of the groups whose owners live in this process's pid namespace: a number means something only
// there.
std::string NamePrefix() {
  struct stat pids {};
  CheckStep(stat("/proc/self/ns/pid", &pids) == 0, "look at the pid namespace");
  return "pm-sandbox." + std::to_string(pids.st_ino) + ".";
}

std::string OwnerName(pid_t pid, std::uint64_t startTicks) {
  return NamePrefix() + std::to_string(pid) + "." + std::to_string(startTicks) + ".";
}

bool IsLeftover(const std::string& group) {
  const std::string prefix = NamePrefix();
  if (!group.starts_with(prefix)) {
    return false;
  }
  const std::string rest = group.substr(prefix.size());
  const auto owner = ProcMgr::ParseNumber<pid_t>(rest.substr(0, rest.find('.')));
  return owner.has_value() && !group.starts_with(OwnerName(*owner, ReadStat(*owner).startTicks));
}

std::vector<std::filesystem::path> SubGroups(const std::filesystem::path& group) {
  std::vector<std::filesystem::path> found;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator(group, error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::error_code ignored;
    if (it->is_directory(ignored)) {
      found.push_back(it->path());
    }
  }
  return found;
}

// Kills what runs in a leftover group.
bool KillMembers(const std::filesystem::path& group) {
  std::string text;
  (void)ProcMgr::ReadSmallFile(group / "cgroup.procs", ProcMgr::kConfigFileLimit, text);
  std::istringstream lines(text);
  std::vector<pid_t> members;
  for (pid_t pid = 0; lines >> pid;) {
    members.push_back(pid);
  }
  return std::all_of(members.begin(), members.end(), KillAndAwait);
}

// Removes a group and all below it. A group whose last process has just died stays busy for an
// instant, until the kernel has taken the process out.
bool RemoveTree(const std::filesystem::path& group, bool killMembers) {
  if (killMembers && !KillMembers(group)) {
    return false;
  }
  for (const auto& child : SubGroups(group)) {
    if (!RemoveTree(child, killMembers)) {
      return false;
    }
  }
  return Eventually([&] { return rmdir(group.c_str()) == 0 || errno != EBUSY; });
}

void SweepBelow(const std::string& root) {
  for (const auto& group : SubGroups(root)) {
    if (IsLeftover(group.filename())) {
      // Two sandboxes may sweep at once; what one finds gone the other has removed.
      (void)RemoveTree(group, true);
    }
  }
}

// A new cpuset group has neither cores nor memory nodes, and no task can join it.
void CopyCpusetValue(const std::string& from, const std::string& to, const char* file) {
  std::string value;
  const int error = ProcMgr::ReadSmallFile(from + "/" + file, ProcMgr::kConfigFileLimit, value);
  const ProcMgr::UniqueFd out(open((to + "/" + file).c_str(), O_WRONLY | O_CLOEXEC));
  CheckStep(error == 0 && out.IsOpen() &&
                write(out.Get(), value.data(), value.size()) == static_cast<ssize_t>(value.size()),
            "copy " + std::string(file) + " of " + from);
}

}  // namespace

CgroupRoots::CgroupRoots() {
  static std::atomic<int> counter = 0;
  name_ = OwnerName(getpid(), ReadStat(getpid()).startTicks) + std::to_string(counter++);
}

void CgroupRoots::Build() {
  for (std::size_t i = 0; i < kHierarchies.size(); ++i) {
    if (!IsMounted(HierarchyRoot(i))) {
      problem_ = MountHierarchies();
      break;
    }
  }
  for (std::size_t i = 0; problem_.empty() && i < kHierarchies.size(); ++i) {
    BuildOne(i);
  }
}

void CgroupRoots::BuildOne(std::size_t index) {
  const std::string root = HierarchyRoot(index);
  SweepBelow(root);
  const std::string group = root + "/" + name_;
  rootFds_.at(index).Reset(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  CheckStep(rootFds_.at(index).IsOpen(), "open " + root);
  CheckStep(mkdir(group.c_str(), 0755) == 0, "make the group " + group);
  if (std::strcmp(kHierarchies.at(index), "cpuset") == 0) {
    CopyCpusetValue(root, group, "cpuset.cpus");
    CopyCpusetValue(root, group, "cpuset.mems");
  }
  tasksFds_.at(index).Reset(open((group + "/tasks").c_str(), O_WRONLY | O_CLOEXEC));
  CheckStep(tasksFds_.at(index).IsOpen(), "open " + group + "/tasks");
  CheckStep(mount(group.c_str(), root.c_str(), nullptr, MS_BIND, nullptr) == 0,
            "bind " + group + " over " + root);
}

void CgroupRoots::Remove() {
  for (std::size_t i = 0; i < kHierarchies.size(); ++i) {
    tasksFds_.at(i).Reset();
    if (rootFds_.at(i).IsOpen()) {
      const std::string root = "/proc/self/fd/" + std::to_string(rootFds_.at(i).Get());
      (void)RemoveTree(root + "/" + name_, false);
      rootFds_.at(i).Reset();
    }
  }
}

bool CgroupRoots::JoinInChild() const {
  for (const ProcMgr::UniqueFd& tasks : tasksFds_) {
    // 0 stands for the writing process.
    if (tasks.IsOpen() && write(tasks.Get(), "0", 1) != 1) {
      return false;
    }
  }
  return true;
}

}  // namespace PmSandbox
