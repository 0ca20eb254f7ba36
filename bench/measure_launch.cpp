#include <string>
#include <vector>

#include "bench/booted_daemon.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kStarts = 500;
constexpr int kRounds = 5;

// What the memory of a large manager may not make dearer.
constexpr long kLargeKib = 200L * 1024;
constexpr double kPartOfABareOne = 0.6;

// The medians of rounds that take turns; a round is the mean of its starts.
Figure CpuFigure(const PmSandbox::Sandbox& host, const std::string& name, const ProcessSize& size) {
  std::vector<double> bareUs;
  std::vector<double> us;
  for (int i = 0; i < kRounds; ++i) {
    bareUs.push_back(MeasureFloor(host, size, kStarts).parentCpuUs);
    us.push_back(MeasureLaunch(host, size, kStarts).parentCpuUs);
  }
  const double bare = Percentile(bareUs, 0.5);
  return {name, Percentile(us, 0.5), "us", bare, kPartOfABareOne * bare};
}

}  // namespace

std::vector<Figure> MeasureLaunch() {
  // For its size; it rests meanwhile.
  const BootedDaemon daemon(1);
  const ProcessSize size = SizeOf(daemon.Pid());
  const Starts bare = MeasureFloor(daemon.Host(), size, kStarts);
  const Starts launch = MeasureLaunch(daemon.Host(), size, kStarts);
  return {
      CpuFigure(daemon.Host(), "launch: CPU of the manager, mean of 500", size),
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
      CpuFigure(daemon.Host(), "launch: CPU of a manager of 200 MiB", {kLargeKib, size.threads}),
      {"launch: system calls of a child up to its exec",
       MeasureCalls(daemon.Host(), kBase),
       "",
       MeasureCalls(daemon.Host(), kBare),
       {}},
  };
}

}  // namespace PmBench
