#include "sandbox/sandbox_mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "sandbox/sandbox.h"
#include "sandbox/system_error.h"

namespace PmSandbox {
namespace {

// The layers of the overlays stand here while the sandbox is built; the sandbox's own /run then
// covers them.
constexpr const char* kScratch = "/run";

void MountTmpfs(const std::string& at) {
  CheckStep(mount("tmpfs", at.c_str(), "tmpfs", MS_NOSUID, "mode=755") == 0,
            "mount a tmpfs on " + at);
}

void MakeFolder(const std::string& path) {
  CheckStep(mkdir(path.c_str(), 0755) == 0, "make the folder " + path);
}

void MakeFile(const std::string& path, mode_t mode) {
  const ProcMgr::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  CheckStep(file.IsOpen(), "make the file " + path);
}

void Bind(const std::string& from, const std::string& to) {
  CheckStep(mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0,
            "bind " + from + " over " + to);
}

// What the sandbox changes below `folder` stays in the scratch layer.
void Overlay(const std::string& folder) {
  const std::string upper = std::string(kScratch) + "/upper" + folder;
  const std::string work = std::string(kScratch) + "/work" + folder;
  MakeFolder(upper);
  MakeFolder(work);
  const std::string options = "lowerdir=" + folder + ",upperdir=" + upper + ",workdir=" + work;
  CheckStep(mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) == 0,
            "mount an overlay on " + folder);
}

void WriteNewFile(const std::string& path, std::string_view text) {
  const ProcMgr::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  CheckStep(file.IsOpen() &&
                write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
            "write " + path);
}

// What a host that runs a manager of its own has in /etc must not reach the tests, nor its users:
// names are looked up in the sandbox's own files and nowhere else.
void ReplaceConfiguration() {
  for (const char* path : {"/etc/zur", "/etc/sharepool", "/etc/vantor_common_env.conf",
                           "/etc/nsswitch.conf", "/etc/passwd", "/etc/group"}) {
    std::filesystem::remove_all(path);
  }
  WriteNewFile("/etc/nsswitch.conf", "passwd: files\ngroup: files\nshadow: files\n");
  WriteNewFile("/etc/passwd",
               "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534::/:/usr/sbin/nologin\n");
  WriteNewFile("/etc/group", "root:x:0:\nnogroup:x:65534:\n");
}

// The host's /dev can't be overlaid, since it shows the kernel's own nodes; the sandbox gets those
// that programs need, and room for sockets and files of its own.
void BuildDev() {
  const std::string dev = std::string(kScratch) + "/dev";
  MakeFolder(dev);
  MountTmpfs(dev);
  constexpr std::array<const char*, 6> kNodes = {"null",   "zero",    "full",
                                                 "random", "urandom", "tty"};
  for (const char* node : kNodes) {
    const std::string path = dev + "/" + node;
    MakeFile(path, 0644);
    Bind(std::string("/dev/") + node, path);
  }
  MakeFile(dev + "/kmsg", 0644);
  CheckStep(mount(dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "move the new /dev");
}

void CoverKernelCommandLine() {
  const std::string line = std::string(kScratch) + "/cmdline";
  MakeFile(line, 0444);
  Bind(line, "/proc/cmdline");
}

void BuildRun() {
  MountTmpfs("/run");
  MakeFolder(Sandbox::kDir);
  // Of its own, so that the room in /run is the platform's alone.
  MountTmpfs(Sandbox::kDir);
  // As in /tmp, services of every user leave files here.
  CheckStep(chmod(Sandbox::kDir, 01777) == 0, "open the sandbox's folder");
}

}  // namespace

void BuildSandboxMounts(CgroupRoots& cgroups) {
  CheckStep(unshare(CLONE_NEWNS) == 0, "make a mount namespace");
  // Without this the mounts below would spread to the host.
  CheckStep(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
            "make the mounts private");
  MountTmpfs(kScratch);
  MakeFolder(std::string(kScratch) + "/upper");
  MakeFolder(std::string(kScratch) + "/work");
  Overlay("/etc");
  Overlay("/opt");
  ReplaceConfiguration();
  BuildDev();
  CoverKernelCommandLine();
  cgroups.Build();
  BuildRun();
}

}  // namespace PmSandbox
