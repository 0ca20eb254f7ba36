#include "sandbox/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "base/small_file.h"
#include "core/log.h"
#include "sandbox/process_table.h"
#include "sandbox/sandbox_mounts.h"
#include "sandbox/system_error.h"
#include "sandbox/wait.h"

namespace PmSandbox {
namespace {

constexpr std::size_t kReadLimit = std::size_t{1} << 28;

ProcMgr::UniqueFd OpenOwnNamespace() {
  // A thread may stand elsewhere than its process.
  ProcMgr::UniqueFd fd(open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC));
  CheckStep(fd.IsOpen(), "open the mount namespace");
  return fd;
}

void WriteAll(int fd, const std::string& text, const std::string& path) {
  CheckStep(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
            "write " + path);
}

void AppendLine(const std::string& path, const std::string& line) {
  const ProcMgr::UniqueFd file(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  WriteAll(file.Get(), line + "\n", path);
}

// A group file, in which each line ends, with `member` added to the line of `group`.
std::string AddMember(std::string groups, const std::string& group, const std::string& member) {
  const std::size_t line = ("\n" + groups).find("\n" + group + ":");
  if (line == std::string::npos) {
    throw std::invalid_argument("there is no group " + group + " to add " + member + " to");
  }
  const std::size_t end = groups.find('\n', line);
  return groups.insert(end, (groups[end - 1] == ':' ? "" : ",") + member);
}

}  // namespace

Sandbox::Sandbox() {
  if (geteuid() != 0) {
    throw std::runtime_error(
        "the sandbox needs root: it makes a mount namespace, cgroups and users of its own");
  }
  CheckStep(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "become the process that adopts orphans");
  // A thread of its own builds the namespace: it belongs to whoever holds its descriptor.
  std::exception_ptr failure;
  std::thread builder([&] {
    try {
      Build();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  builder.join();
  if (failure) {
    cgroups_.Remove();
    std::rethrow_exception(failure);
  }
}

Sandbox::~Sandbox() {
  try {
    KillAll();
  } catch (const std::exception& e) {
    (void)fprintf(stderr, "sandbox: %s\n", e.what());
  }
  cgroups_.Remove();
}

void Sandbox::Build() {
  BuildSandboxMounts(cgroups_);
  namespaceFd_ = OpenOwnNamespace();
  rootFd_.Reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  CheckStep(rootFd_.IsOpen(), "open the sandbox's root");
}

std::string Sandbox::Outside(const std::string& inside) const {
  return "/proc/self/fd/" + std::to_string(rootFd_.Get()) + inside;
}

void Sandbox::WriteFile(const std::string& inside, const std::string& text, mode_t mode) const {
  const std::filesystem::path path = Outside(inside);
  std::filesystem::create_directories(path.parent_path());
  const ProcMgr::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  CheckStep(file.IsOpen() && fchmod(file.Get(), mode) == 0, "write " + inside);
  WriteAll(file.Get(), text, inside);
}

std::string Sandbox::ReadFile(const std::string& inside) const {
  std::string text;
  const int error = ProcMgr::ReadSmallFile(Outside(inside), kReadLimit, text);
  if (error != 0 && error != ENOENT) {
    throw std::system_error(error, std::generic_category(), "read " + inside);
  }
  return text;
}

void Sandbox::InstallProgram(const std::string& hostPath, const std::string& inside, uid_t uid,
                             gid_t gid, mode_t mode) const {
  const std::filesystem::path path = Outside(inside);
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::copy_file(hostPath, path, std::filesystem::copy_options::overwrite_existing);
  CheckStep(chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0,
            "install " + inside);
}

void Sandbox::AddUser(const std::string& name, uid_t uid, gid_t gid, const std::string& home,
                      const std::vector<std::string>& memberOf) const {
  AppendLine(Outside("/etc/passwd"), name + ":x:" + std::to_string(uid) + ":" +
                                         std::to_string(gid) + "::" + home + ":/usr/sbin/nologin");
  AddGroup(name, gid);
  for (const std::string& group : memberOf) {
    WriteFile("/etc/group", AddMember(ReadFile("/etc/group"), group, name));
  }
}

void Sandbox::AddGroup(const std::string& name, gid_t gid) const {
  AppendLine(Outside("/etc/group"), name + ":x:" + std::to_string(gid) + ":");
}

void Sandbox::SetKernelCommandLine(const std::string& line) const {
  WriteFile("/proc/cmdline", line, 0444);
}

void Sandbox::WriteSettings(const std::string& text) const {
  WriteFile(std::string(kConfigDir) + "procmgr_cfg.yaml", text);
}

void Sandbox::CheckCgroups() const {
  if (!CgroupProblem().empty()) {
    throw std::runtime_error(CgroupProblem());
  }
}

void Sandbox::MakeGroup(const std::string& hierarchy, const std::string& name) const {
  CheckCgroups();
  const std::string path = Outside("/sys/fs/cgroup/" + hierarchy + "/" + name);
  CheckStep(mkdir(path.c_str(), 0755) == 0, "make the " + hierarchy + " group " + name);
}

void Sandbox::MakeCpuset(const std::string& name, const std::string& cores) const {
  MakeGroup("cpuset", name);
  const std::string root = "/sys/fs/cgroup/cpuset/";
  const auto set = [&](const std::string& file, const std::string& value) {
    const std::string path = root + name + "/" + file;
    const ProcMgr::UniqueFd out(open(Outside(path).c_str(), O_WRONLY | O_CLOEXEC));
    WriteAll(out.Get(), value, path);
  };
  set("cpuset.cpus", cores);
  set("cpuset.mems", ReadFile(root + "cpuset.mems"));
}

void Sandbox::MakePlatformGroups(const std::string& ctrlCores, const std::string& aiCores) const {
  MakeGroup("cpu", "OTHER");
  MakeGroup("memory", "OTHER");
  MakeCpuset("CtrlCPU", ctrlCores);
  if (!aiCores.empty()) {
    MakeCpuset("AICPU", aiCores);
  }
}

std::vector<pid_t> Sandbox::Processes() const {
  struct stat own {};
  CheckStep(fstat(namespaceFd_.Get(), &own) == 0, "look at the sandbox's namespace");
  std::vector<pid_t> inside;
  for (const pid_t pid : AllProcesses()) {
    struct stat other {};
    const std::string path = "/proc/" + std::to_string(pid) + "/ns/mnt";
    if (pid != getpid() && stat(path.c_str(), &other) == 0 && other.st_ino == own.st_ino &&
        other.st_dev == own.st_dev) {
      inside.push_back(pid);
    }
  }
  return inside;
}

void Sandbox::KillAll() const {
  if (!namespaceFd_.IsOpen()) {
    return;
  }
  // A process may have forked between the look and the kill, so look again until none is left.
  const bool gone = Eventually([&] {
    const std::vector<pid_t> left = Processes();
    for (const pid_t pid : left) {
      if (!KillAndAwait(pid)) {
        return false;
      }
    }
    return left.empty();
  });
  if (!gone) {
    throw std::runtime_error("a process of the sandbox can't be killed");
  }
}

bool Sandbox::JoinInChild() const {
  // Of its own: a thread that a sanitizer starts in the child would share it otherwise.
  return cgroups_.JoinInChild() && unshare(CLONE_FS) == 0 &&
         setns(namespaceFd_.Get(), CLONE_NEWNS) == 0 && chdir("/") == 0;
}

Sandbox::Inside::Inside(const Sandbox& sandbox) : before_(OpenOwnNamespace()) {
  ProcMgr::CloseLog();
  // Only a thread that shares its root and working folder with nobody may change its namespace.
  CheckStep(unshare(CLONE_FS) == 0 && setns(sandbox.namespaceFd_.Get(), CLONE_NEWNS) == 0,
            "enter the sandbox");
}

Sandbox::Inside::~Inside() {
  ProcMgr::CloseLog();
  if (unshare(CLONE_FS) != 0 || setns(before_.Get(), CLONE_NEWNS) != 0) {
    // Whatever the test does next would happen in the wrong place.
    std::terminate();
  }
}

std::string ProgramPath(const std::string& name) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).native();
}

}  // namespace PmSandbox
