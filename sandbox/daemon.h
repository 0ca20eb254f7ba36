// The real process-manager in a sandbox.
#ifndef SANDBOX_DAEMON_H
#define SANDBOX_DAEMON_H

#include <algorithm>
#include <string>
#include <vector>

#include "sandbox/process.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"

namespace PmSandbox {

class Daemon : public Process {
 public:
  // Starts the build's process-manager with the given arguments, the path of a service file first.
  Daemon(const Sandbox& sandbox, const std::vector<std::string>& arguments,
         const Process::Options& options = {{}, "process-manager", nullptr})
      : Process(sandbox, ProgramPath("process-manager"), arguments, options), sandbox_(sandbox) {}

  // Ends the manager first, so that it brings nothing back, and then all that it had started.
  ~Daemon() { KillAll(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  void KillAll() {
    if (IsRunning()) {
      (void)KillAndAwait(Pid());
    }
    sandbox_.KillAll();
  }

  // But for one inotify instance: the messaging library keeps that of its first wait for a peer.
  [[nodiscard]] std::vector<std::string> Descriptors() const {
    std::vector<std::string> open = OpenDescriptors(Pid());
    const auto kept = std::find_if(open.begin(), open.end(), [](const std::string& one) {
      return one.find("inotify") != std::string::npos;
    });
    if (kept != open.end()) {
      open.erase(kept);
    }
    return open;
  }
  [[nodiscard]] std::size_t ThreadCount() const { return Threads(Pid()).size(); }
  [[nodiscard]] std::vector<pid_t> Services() const { return Children(Pid(), false); }

  // Waits until no zombie is left. An exit is told of before it is reaped.
  [[nodiscard]] bool AwaitReaped() const {
    return Eventually([this] { return Children(Pid(), true).empty(); });
  }

 private:
  const Sandbox& sandbox_;
};

}  // namespace PmSandbox

#endif  // SANDBOX_DAEMON_H
