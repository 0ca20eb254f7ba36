#include "bench/call_count.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <stdexcept>

namespace PmBench {
namespace {

constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                          PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
constexpr int kSystemCall = SIGTRAP | 0x80;

// The stops of the body's process, of its threads and of their children.
class Tracer {
 public:
  explicit Tracer(pid_t body) : body_(body) {}

  // Yields the body's wait status.
  int Follow() {
    for (;;) {
      int status = 0;
      const pid_t id = waitpid(-1, &status, __WALL);
      if (id < 0) {
        throw std::runtime_error("a traced process has been lost");
      }
      if (WIFSTOPPED(status)) {
        TakeStop(id, status);
      } else if (id == body_) {
        return status;
      }
    }
  }

  [[nodiscard]] const CallCount& Count() const { return count_; }

 private:
  void TakeStop(pid_t id, int status) {
    const int signal = WSTOPSIG(status);
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
      ++count_.children;
      count_.calls += stops_[id] / 2 + 1;  // The exec has been entered only.
      stops_.erase(id);
      (void)ptrace(PTRACE_DETACH, id, nullptr, 0L);
      return;
    }
    if (signal == kSystemCall) {
      ++stops_[id];
    }
    // A new child or thread begins with a SIGSTOP; nobody sends another.
    const bool isOfTracing = signal == kSystemCall || signal == SIGTRAP || signal == SIGSTOP;
    (void)ptrace(PTRACE_SYSCALL, id, nullptr, isOfTracing ? 0L : static_cast<long>(signal));
  }

  const pid_t body_;
  CallCount count_;
  std::map<pid_t, long> stops_;  // At the beginning and at the end of each call.
};

}  // namespace

CallCount CountCalls(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)raise(SIGSTOP);
    _exit(body());
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status) ||
      ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions) != 0) {
    throw std::runtime_error("a process can't be traced");
  }
  Tracer tracer(child);
  (void)ptrace(PTRACE_SYSCALL, child, nullptr, 0L);
  if (tracer.Follow() != 0) {
    throw std::runtime_error("a traced start has failed");
  }
  return tracer.Count();
}

}  // namespace PmBench
