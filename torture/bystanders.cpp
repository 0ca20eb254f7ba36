#include "torture/bystanders.h"

#include <sys/wait.h>
#include <unistd.h>

#include <deque>

#include "base/sleep.h"

namespace PmTorture {
namespace {

// Each lives as long as `count` others take to come: long enough to be there when its pid's last
// owner is signalled, short enough to get many pids.
constexpr std::int64_t kBetweenNs = 2'000'000;

pid_t Begin() {
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) {
      pause();
    }
  }
  return pid;
}

}  // namespace

Bystanders::Bystanders(std::size_t count) : thread_([this, count] { Body(count); }) {}

Bystanders::~Bystanders() {
  isEnding_ = true;
  thread_.join();
}

void Bystanders::Body(std::size_t count) {
  std::deque<pid_t> pids;
  while (!isEnding_) {
    if (const pid_t pid = Begin(); pid > 0) {
      wraps_ += !pids.empty() && pid < pids.back() ? 1U : 0U;
      pids.push_back(pid);
    }
    if (pids.size() > count) {
      Await(pids.front());
      pids.pop_front();
    }
    ProcMgr::SleepNs(kBetweenNs);
  }
  for (const pid_t pid : pids) {
    Await(pid);
  }
}

// Its own end is a signal that the manager has no reason to send.
void Bystanders::Await(pid_t pid) {
  int status = 0;
  (void)kill(pid, SIGUSR2);
  if (waitpid(pid, &status, 0) == pid) {
    ++lived_;
    hit_ += WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2 ? 0U : 1U;
  }
}

}  // namespace PmTorture
