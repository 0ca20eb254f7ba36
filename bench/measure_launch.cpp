#include <string>

#include "bench/booted_daemon.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kStarts = 500;

// What the memory of a large manager may not make dearer.
constexpr long kLargeKib = 200L * 1024;
constexpr double kPartOfABareOne = 0.6;

Figure CpuFigure(const PmSandbox::Sandbox& host, const std::string& name, long kib) {
  const double bareUs = MeasureFloor(host, kib, kStarts).parentCpuUs;
  return {name, MeasureLaunch(host, kib, kStarts).parentCpuUs, "us", bareUs,
          kPartOfABareOne * bareUs};
}

}  // namespace

std::vector<Figure> MeasureLaunch() {
  // For its size; it rests meanwhile.
  const BootedDaemon daemon(1);
  const Starts bare = MeasureFloor(daemon.Host(), daemon.ResidentKib(), kStarts);
  const Starts launch = MeasureLaunch(daemon.Host(), daemon.ResidentKib(), kStarts);
  return {
      {"launch: CPU of the manager, mean of 500", launch.parentCpuUs, "us", bare.parentCpuUs,
       kPartOfABareOne * bare.parentCpuUs},
      {"launch: CPU of the child, from fork to main", launch.childCpuUs, "us", bare.childCpuUs, {}},
      {"launch: from the decision to main, median of 500",
       Percentile(launch.forkToMainUs, 0.5),
       "us",
       Percentile(bare.forkToMainUs, 0.5),
       {},
       launch.forkToMainUs,
       bare.forkToMainUs},
      {"launch: from the decision to main, p99 of 500",
       Percentile(launch.forkToMainUs, 0.99),
       "us",
       Percentile(bare.forkToMainUs, 0.99),
       {}},
      CpuFigure(daemon.Host(), "launch: CPU of a manager of 200 MiB", kLargeKib),
      {"launch: system calls of a child up to its exec",
       MeasureCalls(daemon.Host(), kBase),
       "",
       MeasureCalls(daemon.Host(), kBare),
       {}},
  };
}

}  // namespace PmBench
