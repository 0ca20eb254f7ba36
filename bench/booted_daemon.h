// The real daemon with a number of bench-services, in a sandbox.
#ifndef BENCH_BOOTED_DAEMON_H
#define BENCH_BOOTED_DAEMON_H

#include <string>
#include <utility>
#include <vector>

#include "bench/host.h"
#include "bench/marks.h"
#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"

namespace PmBench {

class BootedDaemon {
 public:
  // Boots `services` services, each with the given further keys, and waits until the bring-up is
  // through and all have come to their main. `settings` is the manager's own configuration file.
  // Throws if that fails.
  explicit BootedDaemon(int services,
                        const std::vector<std::pair<std::string, std::string>>& keys = {},
                        const std::string& settings = {});

  [[nodiscard]] const PmSandbox::Sandbox& Host() const { return sandbox_; }
  [[nodiscard]] const Marks& Services() const { return marks_; }
  [[nodiscard]] pid_t Pid() const { return daemon_.Pid(); }

  // The instant just before the daemon's own start, on the monotonic clock.
  [[nodiscard]] long long StartNs() const { return startNs_; }
  [[nodiscard]] long ResidentKib() const { return PmBench::ResidentKib(Pid()); }
  [[nodiscard]] double IdleCpuUsPerSecond(int seconds) const {
    return PmBench::IdleCpuUsPerSecond(Pid(), seconds);
  }

 private:
  // Writes the files and yields the path of the service file.
  [[nodiscard]] std::string Prepare(int services,
                                    const std::vector<std::pair<std::string, std::string>>& keys,
                                    const std::string& settings) const;

  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  Marks marks_{sandbox_, "services"};
  std::string serviceFile_;
  long long startNs_;
  PmSandbox::Daemon daemon_;
};

}  // namespace PmBench

#endif  // BENCH_BOOTED_DAEMON_H
