#include "core/predecessor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "base/dir_stream.h"
#include "base/manager_pid.h"
#include "base/names.h"
#include "base/small_file.h"
#include "base/standard_path.h"
#include "base/text.h"
#include "core/log.h"
#include "core/process_facts.h"

namespace ProcMgr {
namespace {

// /run is empty after a boot of the machine, so a file that is there was left by a predecessor.
constexpr const char* kLockFile = "/run/process-manager.lock";

// Main thread.
bool hadPredecessor_ = false;

// The file's lock is that of a process: unlike flock's, no child shares it between its fork and its
// exec, and so none can keep it from the next manager. It would go if any descriptor of the file
// were closed; nobody else opens it.
struct flock WholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Opened to the end of the process.
int OpenLockFile() {
  constexpr mode_t kMode = 0600;
  const int fd = open(kLockFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (fd >= 0 || errno != EEXIST) {
    return fd;
  }
  hadPredecessor_ = true;
  return open(kLockFile, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

void TellOther(int fd) {
  struct flock other = WholeFile();
  const bool isKnown = fcntl(fd, F_GETLK, &other) == 0 && other.l_type != F_UNLCK;
  const int pid = isKnown ? other.l_pid : -1;
  LogErrorRouted("PROCMGR : another process-manager runs on this machine, pid=%d, this one ends",
                 pid);
  (void)std::fprintf(stderr, "process-manager: another one runs on this machine, pid %d\n", pid);
}

std::string ProcPath(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// A container's processes run programs of the same paths.
bool SeesOurFiles(pid_t pid) {
  struct stat ours {};
  struct stat theirs {};
  return stat("/proc/self/ns/mnt", &ours) == 0 &&
         stat(ProcPath(pid, "ns/mnt").c_str(), &theirs) == 0 && ours.st_dev == theirs.st_dev &&
         ours.st_ino == theirs.st_ino;
}

// A child of a manager has its service's PROC_NAME, or inherits the manager's. Whoever was started
// by somebody else with the same program has neither.
bool WasStartedFor(pid_t pid, const ApplicationManifest& service) {
  const auto& given = service.GetEnvArgv();
  const auto own = given.find("PROC_NAME");
  const std::string wanted =
      std::string("PROC_NAME=") + (own == given.end() ? kManagerName : own->second) + '\0';
  std::string environment;
  return ReadSmallFile(ProcPath(pid, "environ"), kConfigFileLimit, environment) == 0 &&
         (std::string(1, '\0') + environment).find('\0' + wanted) != std::string::npos;
}

// A service and its program, resolved.
using Program = std::pair<std::string, const ApplicationManifest*>;

std::vector<Program> Programs(const std::vector<ApplicationManifest>& services) {
  std::vector<Program> programs;
  for (const ApplicationManifest& service : services) {
    std::string path;
    if (StandardizationPath(service.GetBinPath(), path)) {
      programs.emplace_back(std::move(path), &service);
    }
  }
  return programs;
}

void TellIfOrphan(pid_t pid, const std::vector<Program>& programs) {
  const std::string program = ProgramOf(pid);
  if (program.empty()) {
    return;
  }
  const auto found = std::find_if(programs.begin(), programs.end(), [&](const Program& entry) {
    return entry.first == program && WasStartedFor(pid, *entry.second);
  });
  if (found != programs.end() && SeesOurFiles(pid)) {
    LogWarning(
        "PROCMGR : pid=%d of an earlier process-manager still runs as base app=%s, path=%s, and is "
        "not supervised",
        pid, found->second->GetAppName().c_str(), program.c_str());
  }
}

}  // namespace

bool BecomeOnlyManager() {
  const int fd = OpenLockFile();
  struct flock lock = WholeFile();
  if (fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0) {
    if (const int error = TellManagerPid(); error != 0) {
      LogWarningRouted("PROCMGR : can't tell the services which process is the manager, errno=%d",
                       error);
    }
    return true;
  }
  if (fd >= 0 && (errno == EACCES || errno == EAGAIN)) {
    TellOther(fd);
    return false;
  }
  LogWarningRouted("PROCMGR : can't lock %s, errno=%d, going on without", kLockFile, errno);
  return true;
}

void TellOrphans(const std::vector<ApplicationManifest>& baseServices) {
  if (!hadPredecessor_) {
    return;
  }
  const DirStream folder(opendir("/proc"));
  const std::vector<Program> programs = Programs(baseServices);
  while (const dirent* const entry = folder == nullptr ? nullptr : readdir(folder.get())) {
    if (const auto pid = ParseNumber<pid_t>(entry->d_name)) {
      TellIfOrphan(*pid, programs);
    }
  }
}

}  // namespace ProcMgr
