// A private view of the machine in which the real daemon boots without touching the host.
//
// A sandbox is a mount namespace of its own: an overlay on /etc and on /opt, its own users (root
// and nobody), its own /run, /dev (with its own /dev/kmsg, and a /dev/log that a LogReader serves),
// its own /proc/cmdline, and its own groups as the roots of the cpu, memory and cpuset hierarchies.
// No process holds it: it lives as long as this object's descriptor, so it goes with the test
// process however that ends. Any number of sandboxes work side by side, in one process and in
// several.
//
// The test stays outside and reaches in by path (Outside), by starting programs inside (process.h),
// or by stepping in with one thread (Sandbox::Inside).
#ifndef SANDBOX_SANDBOX_H
#define SANDBOX_SANDBOX_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "sandbox/cgroup_roots.h"

namespace PmSandbox {

class Sandbox {
 public:
  // A place for a test's own files, inside; everybody may write there.
  static constexpr const char* kDir = "/run/sandbox";

  // Throws with a text that says what is missing: root, or a step the kernel refuses. Makes the
  // calling process the one that adopts orphans, so that Kill leaves no zombie.
  Sandbox();
  // Kills what still runs inside and removes the groups.
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // The path by which this process reaches the absolute path `inside`, whichever namespace the
  // calling thread is in. An absolute symbolic link on the way would lead out to the host.
  [[nodiscard]] std::string Outside(const std::string& inside) const;

  // Writes the file and makes the folders above it. Replaces what stands there.
  void WriteFile(const std::string& inside, const std::string& text, mode_t mode = 0644) const;
  // The whole file; empty if there is none.
  [[nodiscard]] std::string ReadFile(const std::string& inside) const;

  // Copies a program of the host to the path `inside`. The manager checks execute bits against
  // owner and group, so a service that runs under a user of its own belongs to that user's group.
  void InstallProgram(const std::string& hostPath, const std::string& inside, uid_t uid = 0,
                      gid_t gid = 0, mode_t mode = 0755) const;

  // Adds a user with a group of the same name, and makes it a member of the groups `memberOf`,
  // which must exist.
  void AddUser(const std::string& name, uid_t uid, gid_t gid, const std::string& home,
               const std::vector<std::string>& memberOf = {}) const;
  void AddGroup(const std::string& name, gid_t gid) const;

  void SetKernelCommandLine(const std::string& line) const;

  // Where the manager finds its configuration, inside; with a slash at its end.
  static constexpr const char* kConfigDir = "/etc/zur/base-plat/process-manager/";
  // Writes the manager's own configuration file.
  void WriteSettings(const std::string& text) const;

  // Makes a group below the sandbox's root of a hierarchy ("cpu", "memory"). Throws with the
  // reason on a machine without cgroup v1.
  void MakeGroup(const std::string& hierarchy, const std::string& name) const;
  // Makes a cpuset group that tasks can join, with the given cores ("0-1").
  void MakeCpuset(const std::string& name, const std::string& cores) const;
  // Makes the groups that the platform prepares: "OTHER" for cpu and memory, "CtrlCPU" and, if
  // `aiCores` isn't empty, "AICPU".
  void MakePlatformGroups(const std::string& ctrlCores, const std::string& aiCores = {}) const;
  // Empty, or why the machine has no cgroup v1 to offer.
  [[nodiscard]] const std::string& CgroupProblem() const { return cgroups_.Problem(); }

  // The processes inside, this one excepted; zombies don't count.
  [[nodiscard]] std::vector<pid_t> Processes() const;
  // Kills them all, and those that they start meanwhile; returns when all are gone. Throws if they
  // aren't after a while.
  void KillAll() const;

  // For a forked child, before its exec: joins the groups and the namespace, and stands in "/".
  // Async-signal-safe. Yields false with errno.
  [[nodiscard]] bool JoinInChild() const;

  // While it lives, the calling thread, and the threads that it starts, are inside. syslog is
  // closed on the way in and out, so that the next line connects where its thread stands then.
  class Inside {
   public:
    explicit Inside(const Sandbox& sandbox);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    ProcMgr::UniqueFd before_;
  };

 private:
  void Build();
  void CheckCgroups() const;

  CgroupRoots cgroups_;
  ProcMgr::UniqueFd namespaceFd_;
  ProcMgr::UniqueFd rootFd_;
};

// The folder of the build's programs: the one that the calling program itself stands in.
std::string ProgramPath(const std::string& name);

}  // namespace PmSandbox

#endif  // SANDBOX_SANDBOX_H
