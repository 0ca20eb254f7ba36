// The real daemon under a burden, and what its other charges notice of it.
//
// Besides the burden's own services it has "agent", who asks; "victim", who is killed; and, last in
// the boot, "gate", who reports, and "late", who waits for that.
#ifndef BENCH_BURDENED_DAEMON_H
#define BENCH_BURDENED_DAEMON_H

#include <cstddef>
#include <memory>
#include <string>

#include "bench/burdens.h"
#include "bench/marks.h"
#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"

namespace PmBench {

class BurdenedDaemon {
 public:
  // In milliseconds.
  struct Look {
    double filed = 0;     // From the kill of "victim" until its exit is filed.
    double back = 0;      // From the kill to the main of its successor.
    double answered = 0;  // A query of "agent".
  };
  struct Holding {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    long memoryKib = 0;  // Of its own, not of files.
  };

  // Returns when the boot waits for "gate". Throws if something doesn't come, as all operations do.
  explicit BurdenedDaemon(const BurdenKind& kind);

  [[nodiscard]] PmSandbox::Daemon& Process() { return daemon_; }
  [[nodiscard]] std::string Log() const { return log_.Text(); }

  // Begins the burden, or sees to it that it is under way.
  void Renew() { burden_->Renew(); }
  void End() { burden_->End(); }

  // Has the boot go on. Yields how long "late" takes to its main.
  double FinishBoot();
  Look LookAround();
  // Waits until the daemon holds no more than this. Yields whether it does.
  [[nodiscard]] bool AwaitHolding(const Holding& most) const;
  [[nodiscard]] Holding Holds() const;

 private:
  [[nodiscard]] std::string Prepare() const;

  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  Marks services_{sandbox_, "services"};
  Marks victim_{sandbox_, "victim"};
  Marks late_{sandbox_, "late"};
  PmSandbox::AgentPeer agent_{sandbox_, "agent"};
  PmSandbox::AgentPeer gate_{sandbox_, "gate"};
  std::unique_ptr<Burden> burden_;
  PmSandbox::Daemon daemon_;
};

}  // namespace PmBench

#endif  // BENCH_BURDENED_DAEMON_H
