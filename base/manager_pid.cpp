#include "base/manager_pid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "base/text.h"
#include "base/unique_fd.h"

namespace ProcMgr {
namespace {

// Beside the manager's lock, which is no proof for others: whoever can open the lock's file to look
// at it could lock it, too, and keep the next manager from its start.
constexpr const char* kFile = "/run/process-manager.pid";
constexpr const char* kDraft = "/run/process-manager.pid.new";

int WriteDraft() {
  constexpr mode_t kMode = 0644;
  (void)unlink(kDraft);
  const UniqueFd file(open(kDraft, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (!file.IsOpen()) {
    return errno;
  }
  const std::string text = std::to_string(getpid()) + "\n";
  const ssize_t written = write(file.Get(), text.data(), text.size());
  if (written < 0) {
    return errno;
  }
  return written == static_cast<ssize_t>(text.size()) ? 0 : ENOSPC;
}

// What the file tells; -1 for nothing that is worth a belief, with errno if there is no file.
pid_t ToldPid() {
  const UniqueFd file(open(kFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.IsOpen()) {
    return -1;
  }
  struct stat status {};
  std::array<char, 32> text{};
  errno = 0;
  if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != 0 ||
      (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return -1;
  }
  const ssize_t length = read(file.Get(), text.data(), text.size());
  if (length < 1 || text.at(static_cast<std::size_t>(length) - 1) != '\n') {
    return -1;
  }
  return ParseNumber<pid_t>({text.data(), static_cast<std::size_t>(length) - 1}).value_or(-1);
}

}  // namespace

int TellManagerPid() {
  int error = WriteDraft();
  if (error == 0 && rename(kDraft, kFile) != 0) {
    error = errno;
  }
  if (error != 0) {
    (void)unlink(kDraft);
    (void)unlink(kFile);
  }
  return error;
}

bool MayBeManager(pid_t pid, uid_t user) {
  if (pid == 0 || pid == getpid() || pid == getppid()) {
    return true;
  }
  errno = 0;
  const pid_t told = ToldPid();
  if (told > 0) {
    return told == pid || (user == 0 && kill(told, 0) != 0 && errno == ESRCH);
  }
  return errno == ENOENT;
}

}  // namespace ProcMgr
