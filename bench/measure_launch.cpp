#include "bench/booted_daemon.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kStarts = 500;

}  // namespace

std::vector<Figure> MeasureLaunch() {
  // For its size; it rests meanwhile.
  const BootedDaemon daemon(1);
  const Starts bare = MeasureFloor(daemon.Host(), daemon.ResidentKib(), kStarts);
  const Starts launch = MeasureLaunch(daemon.Host(), daemon.ResidentKib(), kStarts);
  return {
      {"launch: CPU of the manager, mean of 500", launch.parentCpuUs, "us", bare.parentCpuUs,
       1.3 * bare.parentCpuUs},
      {"launch: CPU of the child, from fork to main", launch.childCpuUs, "us", bare.childCpuUs, {}},
      {"launch: from the decision to main, median of 500",
       Percentile(launch.forkToMainUs, 0.5),
       "us",
       Percentile(bare.forkToMainUs, 0.5),
       {}},
      {"launch: from the decision to main, p99 of 500",
       Percentile(launch.forkToMainUs, 0.99),
       "us",
       Percentile(bare.forkToMainUs, 0.99),
       {}},
  };
}

}  // namespace PmBench
