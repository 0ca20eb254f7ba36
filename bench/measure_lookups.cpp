#include <csignal>
#include <string>

#include "bench/floor.h"
#include "bench/measures.h"
#include "bench/served_daemon.h"

namespace PmBench {
namespace {

constexpr int kFew = 10;
constexpr int kMany = 10'000;
constexpr int kRounds = 5;
constexpr int kExits = 200;  // In a round.
constexpr int kQueries = 500;
constexpr double kAllowedGrowth = 1.3;

struct Costs {
  double exitUs = 0;
  double exitFloorUs = 0;  // The kernel looks for an ended child by walking over all.
  double queryUs = 0;
};

Costs MeasureWith(int up) {
  ServedDaemon daemon;
  daemon.Start(0, up);
  (void)daemon.AwaitReports(up, kStarted);
  const double idleUs = IdleCpuUsPerSecond(daemon.Pid(), 3);
  Costs costs;
  costs.exitFloorUs =
      MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), up + kExits, kExits).exitCpuUs;
  for (int round = 0; round < kRounds; ++round) {
    daemon.Start(up, kExits);
    const std::vector<pid_t> pids = daemon.AwaitReports(kExits, kStarted);
    costs.exitUs += CpuUsOf(daemon.Pid(), idleUs, [&] {
      for (const pid_t pid : pids) {
        (void)kill(pid, SIGKILL);
      }
      (void)daemon.AwaitReports(kExits, kCrashed);
    });
  }
  costs.exitUs /= kRounds * kExits;
  // For the last ones, to which a walk would come last.
  costs.queryUs = CpuUsOf(daemon.Pid(), idleUs, [&] {
    for (int i = 0; i < kQueries; ++i) {
      daemon.Query(up - kFew, kFew);
    }
  });
  costs.queryUs /= kQueries;
  return costs;
}

}  // namespace

std::vector<Figure> MeasureLookups() {
  const Costs few = MeasureWith(kFew);
  const Costs many = MeasureWith(kMany);
  return {
      {"exit: CPU of the manager, 10 up", few.exitUs, "us", few.exitFloorUs, {}},
      {"exit: CPU of the manager, 10000 up", many.exitUs, "us", many.exitFloorUs,
       kAllowedGrowth * (few.exitUs + many.exitFloorUs - few.exitFloorUs)},
      {"query: CPU of the manager for 10 names, 10 up", few.queryUs, "us", {}, {}},
      {"query: CPU of the manager for 10 names, 10000 up",
       many.queryUs,
       "us",
       {},
       kAllowedGrowth * few.queryUs},
  };
}

}  // namespace PmBench
