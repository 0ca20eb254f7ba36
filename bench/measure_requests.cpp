#include <random>
#include <vector>

#include "base/sleep.h"
#include "bench/clock.h"
#include "bench/floor.h"
#include "bench/measures.h"
#include "bench/served_daemon.h"

namespace PmBench {
namespace {

constexpr int kStarts = 300;
constexpr int kPassUs = 30'000;
constexpr double kAddedUs = 2'000;

// Yields how long each start took from the frame to main, in microseconds.
std::vector<double> StartOneByOne(ServedDaemon& daemon) {
  // At all distances from a check pass, as a real request.
  std::mt19937 random(20);  // NOLINT(cert-msc51-cpp): the same run every time.
  std::uniform_int_distribution<int> pauseUs(0, kPassUs);
  std::vector<long long> sent;
  for (int i = 0; i < kStarts; ++i) {
    ProcMgr::SleepNs(pauseUs(random) * 1000LL);
    sent.push_back(MonotonicNs());
    daemon.Start(i, 1);
    (void)daemon.AwaitReports(1, kStarted);
  }
  std::vector<double> tookUs;
  for (const Mark& mark : daemon.Applications().Await(kStarts)) {
    tookUs.push_back(static_cast<double>(mark.mainNs - sent[tookUs.size()]) / 1e3);
  }
  return tookUs;
}

}  // namespace

std::vector<Figure> MeasureRequests() {
  ServedDaemon daemon;
  const double idleUs = IdleCpuUsPerSecond(daemon.Pid(), 3);
  const Starts floor = MeasureFloor(daemon.Host(), SizeOf(daemon.Pid()), kStarts);

  std::vector<double> tookUs;
  const double cpuUs = CpuUsOf(daemon.Pid(), idleUs, [&] { tookUs = StartOneByOne(daemon); });

  const double floorMedian = Percentile(floor.forkToMainUs, 0.5);
  const double floorP99 = Percentile(floor.forkToMainUs, 0.99);
  return {
      {"request: CPU of the manager, frame to reports",
       cpuUs / kStarts,
       "us",
       floor.parentCpuUs,
       {}},
      {"request: from the frame to main, median of 300", Percentile(tookUs, 0.5), "us", floorMedian,
       floorMedian + kAddedUs},
      {"request: from the frame to main, p99 of 300", Percentile(tookUs, 0.99), "us", floorP99,
       floorP99 + kAddedUs},
  };
}

}  // namespace PmBench
