#include "tools/notify/child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/unique_fd.h"

namespace Notify {
namespace {

constexpr int kNotRun = 127;

// "KEY=VALUE" of every entry that the child gets.
std::vector<std::string> EntriesOf(const ChildPlan& plan) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    if (plan.environment.count(std::string(text.substr(0, text.find('=')))) == 0) {
      entries.emplace_back(text);
    }
  }
  for (const auto& [key, value] : plan.environment) {
    if (value.has_value()) {
      entries.push_back(key + "=" + *value);
    }
  }
  return entries;
}

// Pointers to the words, and a null behind them.
std::vector<char*> PointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// In the child, beside the messaging library's threads: async-signal-safe calls only. Everything
// that takes memory was made before the fork.
[[noreturn]] void RunChild(const ChildPlan& plan, pid_t parent, char* const* arguments,
                           char* const* environment, int tell) {
  int error = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 ? 0 : errno;
  if (getppid() != parent) {
    _exit(kNotRun);  // It has ended before the kernel was asked to tell of that.
  }
  if (error == 0 && plan.ownGroup && setpgid(0, 0) != 0) {
    error = errno;
  }
  if (error == 0) {
    (void)sigprocmask(SIG_SETMASK, &plan.signals, nullptr);
    execvpe(arguments[0], arguments, environment);
    error = errno;
  }
  // The parent waits for these bytes or for the end of the pipe.
  [[maybe_unused]] const ssize_t written = write(tell, &error, sizeof(error));
  _exit(kNotRun);
}

// What the child has told of its exec: 0 if its program runs.
int ReadError(int fd) {
  int error = 0;
  ssize_t got = 0;
  do {
    got = read(fd, &error, sizeof(error));
  } while (got < 0 && errno == EINTR);
  return got == sizeof(error) ? error : 0;
}

}  // namespace

pid_t StartChild(const ChildPlan& plan) {
  std::vector<std::string> words = plan.command;
  std::vector<std::string> entries = EntriesOf(plan);
  const std::vector<char*> arguments = PointersTo(words);
  const std::vector<char*> environment = PointersTo(entries);
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return -errno;
  }
  const ProcMgr::UniqueFd reading(ends[0]);
  ProcMgr::UniqueFd writing(ends[1]);
  const pid_t self = getpid();
  const pid_t child = fork();
  if (child < 0) {
    return -errno;
  }
  if (child == 0) {
    RunChild(plan, self, arguments.data(), environment.data(), writing.Get());
  }
  writing.Reset();
  const int error = ReadError(reading.Get());
  if (error != 0) {
    (void)waitpid(child, nullptr, 0);
    return -error;
  }
  return child;
}

int EndLike(int status) {
  if (!WIFSIGNALED(status)) {
    return WEXITSTATUS(status);
  }
  const int number = WTERMSIG(status);
  // A process that isn't dumpable leaves no core file: that of the child is the one that matters.
  (void)prctl(PR_SET_DUMPABLE, 0);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  (void)sigaction(number, &standard, nullptr);
  sigset_t only;
  (void)sigemptyset(&only);
  (void)sigaddset(&only, number);
  (void)pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  (void)raise(number);
  return 128 + number;
}

}  // namespace Notify
