#include "bench/booted_daemon.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kServices = 50;
constexpr double kAllowedMs = 2;

constexpr int kMany = 1000;
constexpr double kTimesBareOnes = 1.5;

Figure BootOfMany() {
  const BootedDaemon daemon(kMany);
  const double bareMs =
      MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), kMany, kMany).startUs / 1e3;
  const long long lastNs = LastMainNs(daemon.Services().Await(kMany));
  return {"boot: from the daemon's start to the 1000th main", MsBetween(daemon.StartNs(), lastNs),
          "ms", bareMs, kTimesBareOnes * bareMs};
}

}  // namespace

std::vector<Figure> MeasureBoot() {
  const BootedDaemon daemon(kServices);
  const Starts floor = MeasureFloor(daemon.Host(), SizeOf(daemon.Pid()), kServices);
  const double floorMs = Mean(floor.forkToMainUs) / 1e3;

  const std::vector<Mark> marks = daemon.Services().Await(kServices);
  const double firstMs = MsBetween(daemon.StartNs(), marks.front().mainNs);
  const double lastMs = MsBetween(daemon.StartNs(), marks.back().mainNs);
  return {
      {"boot: from the daemon's start to the first main", firstMs, "ms", {}, {}},
      {"boot: from the daemon's start to the 50th main", lastMs, "ms", floorMs * kServices, {}},
      {"boot: from one service's main to the next one's", (lastMs - firstMs) / (kServices - 1),
       "ms", floorMs, floorMs + kAllowedMs},
      BootOfMany(),
  };
}

}  // namespace PmBench
