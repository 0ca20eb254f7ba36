#include "torture/few_pids.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "base/unique_fd.h"
#include "sandbox/system_error.h"
#include "torture/require.h"

namespace PmTorture {
namespace {

using PmSandbox::CheckStep;

constexpr std::string_view kPids = "1000";

// Since then each pid namespace has a limit of its own; before, this would be the machine's.
bool HasLimitOfItsOwn() {
  constexpr std::pair<long, long> kFirst{6, 14};
  utsname system{};
  CheckStep(uname(&system) == 0, "ask for the kernel's version");
  char* dot = nullptr;
  const long major = std::strtol(system.release, &dot, 10);
  const long minor = *dot == '.' ? std::strtol(dot + 1, nullptr, 10) : 0;
  return std::pair(major, minor) >= kFirst;
}

// The caller is the first process of the namespace.
void Furnish() {
  CheckStep(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keep mounts private");
  CheckStep(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
            "mount /proc");
  if (HasLimitOfItsOwn()) {
    const ProcMgr::UniqueFd limit(open("/proc/sys/kernel/pid_max", O_WRONLY | O_CLOEXEC));
    CheckStep(write(limit.Get(), kPids.data(), kPids.size()) == std::ssize(kPids), "limit pids");
  }
}

// The process ends with its parent.
pid_t Fork() {
  const pid_t pid = fork();
  CheckStep(pid >= 0, "fork");
  if (pid == 0) {
    CheckStep(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, "end with the parent");
  }
  return pid;
}

// Calls `work` and ends the process, with 1 and the message of what it threw in `words`.
template <typename Function>
[[noreturn]] void EndWith(int words, Function work) {
  int status = 0;
  try {
    work();
  } catch (const std::exception& error) {
    const std::string_view text = error.what();
    status = write(words, text.data(), text.size()) == std::ssize(text) ? 1 : 2;
  }
  (void)std::fflush(nullptr);
  _exit(status);
}

// An init has nothing else to do than to take the exits of orphans, until that of `pid` comes.
void TakeExits(pid_t pid) {
  int status = 0;
  for (pid_t ended = 0; ended != pid;) {
    ended = wait(&status);
    CheckStep(ended > 0 || errno == EINTR, "take an exit");
  }
  PmSandbox::Demand(WIFEXITED(status) && WEXITSTATUS(status) <= 1, "the run ended without a word");
}

[[noreturn]] void BeInit(int words, const std::function<void()>& body) {
  EndWith(words, [&] {
    Furnish();
    const pid_t pid = Fork();
    if (pid == 0) {
      EndWith(words, body);
    }
    TakeExits(pid);
  });
}

// A process of its own enters the namespace, for all later children of the caller would be in it.
[[noreturn]] void Enter(int words, const std::function<void()>& body) {
  EndWith(words, [&] {
    CheckStep(unshare(CLONE_NEWPID | CLONE_NEWNS) == 0, "make a pid namespace");
    const pid_t init = Fork();
    if (init == 0) {
      BeInit(words, body);
    }
    TakeExits(init);
  });
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> part{};
  for (ssize_t size = 0; (size = read(fd, part.data(), part.size())) > 0;) {
    text.append(part.data(), static_cast<std::size_t>(size));
  }
  return text;
}

// Throws Broken with what was thrown inside, or on the way there.
void Inside(const std::function<void()>& body) {
  int ends[2] = {-1, -1};
  CheckStep(pipe2(ends, O_CLOEXEC) == 0, "make a pipe");
  const ProcMgr::UniqueFd words(ends[0]);
  ProcMgr::UniqueFd written(ends[1]);
  (void)std::fflush(nullptr);
  const pid_t pid = Fork();
  if (pid == 0) {
    Enter(written.Get(), body);
  }
  written.Reset();
  const std::string text = ReadAll(words.Get());
  TakeExits(pid);
  Require(text.empty(), text);
}

}  // namespace

void AmongFewPids(const std::function<void()>& body) {
  try {
    Inside([] {});
  } catch (const std::exception& error) {
    std::printf("no pid namespace here: %s\n", error.what());
    return body();
  }
  Inside(body);
}

}  // namespace PmTorture
