// The real daemon under a burden, and what its other charges notice of it.
//
// Besides the burden's own services it has "agent", who asks; "victim", who is killed; and, last in
// the boot, "gate", who reports, and "late", who waits for that.
#ifndef BENCH_BURDENED_DAEMON_H
#define BENCH_BURDENED_DAEMON_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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

  // All looks, and how long the boot took to go on.
  struct Impression {
    std::vector<Look> looks;
    double bootMs = 0;
  };

  // Returns when the boot waits for "gate". Throws if something doesn't come, as all operations do.
  explicit BurdenedDaemon(const BurdenKind& kind);

  [[nodiscard]] PmSandbox::Daemon& Process() { return daemon_; }
  [[nodiscard]] std::string Log() const { return log_.Text(); }

  // Has the boot go on, and kills "victim" so many times, at all distances from a check pass, while
  // the burden is under way; then ends it. Once.
  Impression LookAround(int looks, std::uint64_t seed);
  // Waits until the daemon holds no more than this. Throws with what it holds if it doesn't come.
  void AwaitHolding(const Holding& most) const;
  [[nodiscard]] Holding Holds() const;

 private:
  [[nodiscard]] std::string Prepare() const;
  double FinishBoot();
  Look LookOnce();

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
