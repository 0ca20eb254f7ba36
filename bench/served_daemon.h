// The real daemon with two base services that the measurement plays: "owner", who asks for
// applications, and "iammgr", who hears of everything.
//
// The applications are bench-services with the names "app-0", "app-1" and so on.
#ifndef BENCH_SERVED_DAEMON_H
#define BENCH_SERVED_DAEMON_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/host.h"
#include "bench/marks.h"
#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"

namespace PmBench {

class ServedDaemon {
 public:
  // Returns when the bring-up is through and the applications can be asked for. Throws if that
  // fails, as all operations do.
  ServedDaemon();

  [[nodiscard]] const PmSandbox::Sandbox& Host() const { return sandbox_; }
  // Of the applications, in the order of their starts.
  [[nodiscard]] const Marks& Applications() const { return marks_; }
  [[nodiscard]] pid_t Pid() const { return daemon_.Pid(); }
  [[nodiscard]] long ResidentKib() const { return PmBench::ResidentKib(Pid()); }

  // Each sends its request for the applications from `first` on and returns at once.
  void Start(int first, int count) const;
  void Terminate(int first, int count) const;

  // Asks for the states of these applications and waits for the answer; 100 fit in it.
  void Query(int first, int count);

  // Waits for the next `count` reports, which must be of `state`. Yields the pids that they name.
  std::vector<pid_t> AwaitReports(int count, std::uint32_t state);

 private:
  // Writes the service file and yields its path.
  [[nodiscard]] std::string Prepare() const;
  void Boot();

  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  PmSandbox::AgentPeer iammgr_{sandbox_, "iammgr"};
  PmSandbox::AgentPeer owner_{sandbox_, "owner"};
  Marks services_{sandbox_, "services"};
  Marks marks_{sandbox_, "applications"};
  std::string serviceFile_;
  PmSandbox::Daemon daemon_;
};

// States of a report, as the frames carry them.
inline constexpr std::uint32_t kStarted = 0;
inline constexpr std::uint32_t kEnded = 3;
inline constexpr std::uint32_t kCrashed = 4;

}  // namespace PmBench

#endif  // BENCH_SERVED_DAEMON_H
