#include <csignal>
#include <optional>
#include <string>

#include "bench/clock.h"
#include "bench/floor.h"
#include "bench/measures.h"
#include "bench/served_daemon.h"

namespace PmBench {
namespace {

constexpr int kMost = 1000;
constexpr int kRounds = 5;
constexpr int kTerminated = 500;
constexpr int kKilled = 200;
constexpr int kIdleSeconds = 10;
constexpr double kIdleMs = 0.6;
// Ends come to light in a pass, the last of them may miss the one that is under way, and what the
// manager does for all of them at once takes about as long as a third.
constexpr double kThreePassesMs = 90;

// Starts `count` applications in one request and yields the time up to the last main.
double StartAllMs(ServedDaemon& daemon, int count) {
  const long long sent = MonotonicNs();
  daemon.Start(0, count);
  (void)daemon.AwaitReports(count, kStarted);
  const long long last = LastMainNs(daemon.Applications().Await(static_cast<std::size_t>(count)));
  return MsBetween(sent, last);
}

// How long bare starts and the daemon's took, round by round.
struct StartTimes {
  std::vector<double> floorMs;
  std::vector<double> ms;
};

void StartAll(ServedDaemon& daemon, int count, StartTimes& times) {
  const StartsAtOnce floor = MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), count, count);
  times.floorMs.push_back(floor.startUs / 1e3);
  times.ms.push_back(StartAllMs(daemon, count));
}

Figure StartFigure(const StartTimes& times, int count) {
  const double floorMs = Percentile(times.floorMs, 0.5);
  return {"many: " + std::to_string(count) + " in a request, to the last main",
          Percentile(times.ms, 0.5), "ms", floorMs,
          count == kMost ? std::optional<double>(floorMs) : std::nullopt};
}

void MeasureStart(ServedDaemon& daemon, int count, std::vector<Figure>& figures) {
  StartTimes times;
  StartAll(daemon, count, times);
  figures.push_back(StartFigure(times, count));
}

void MeasureTermination(ServedDaemon& daemon, std::vector<Figure>& figures) {
  const StartsAtOnce floor =
      MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), kTerminated, kTerminated);
  const long long sent = MonotonicNs();
  daemon.Terminate(0, kTerminated);
  (void)daemon.AwaitReports(kTerminated, kEnded);
  const double floorMs = floor.endUs / 1e3;
  figures.push_back({"many: 500 terminated, request to last report", MsBetween(sent, MonotonicNs()),
                     "ms", floorMs, floorMs + kThreePassesMs});
}

void MeasureKills(ServedDaemon& daemon, std::vector<Figure>& figures) {
  const StartsAtOnce floor =
      MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), kMost, kKilled);
  const std::vector<Mark> marks = daemon.Applications().Await(kMost);
  const long long killed = MonotonicNs();
  for (std::size_t i = 0; i < kKilled; ++i) {
    (void)kill(marks[i].pid, SIGKILL);
  }
  (void)daemon.AwaitReports(kKilled, kCrashed);
  const double floorMs = floor.endUs / 1e3;
  figures.push_back({"many: 200 killed at once, to the last report",
                     MsBetween(killed, MonotonicNs()), "ms", floorMs, floorMs + kThreePassesMs});
}

// `loopMs`: the CPU of an empty loop in a second, measured while nothing else woke the cores.
void MeasureWhileUp(const ServedDaemon& daemon, long emptyKib, double loopMs,
                    std::vector<Figure>& figures) {
  const double each = static_cast<double>(daemon.ResidentKib() - emptyKib) / kMost;
  figures.push_back({"many: memory of one application of 1000", each, "KiB", {}, 6.0});
  figures.push_back({"many: idle CPU in a second, 1000 up",
                     IdleCpuUsPerSecond(daemon.Pid(), kIdleSeconds) / 1e3, "ms", loopMs,
                     loopMs + kIdleMs});
}

}  // namespace

std::vector<Figure> MeasureMany() {
  std::vector<Figure> figures;
  const double loopMs = BareLoopUsPerSecond(kIdleSeconds) / 1e3;
  {
    ServedDaemon daemon;
    MeasureStart(daemon, 100, figures);
  }
  {
    ServedDaemon daemon;
    MeasureStart(daemon, kTerminated, figures);
    MeasureTermination(daemon, figures);
  }
  StartTimes most;
  for (int round = 1; round < kRounds; ++round) {
    ServedDaemon daemon;
    StartAll(daemon, kMost, most);
  }
  ServedDaemon daemon;
  const long emptyKib = daemon.ResidentKib();
  figures.push_back({"many: system calls of a child up to its exec",
                     MeasureCalls(daemon.Host(), kGeneral),
                     "",
                     MeasureCalls(daemon.Host(), kBare),
                     {}});
  StartAll(daemon, kMost, most);
  figures.push_back(StartFigure(most, kMost));
  MeasureWhileUp(daemon, emptyKib, loopMs, figures);
  MeasureKills(daemon, figures);
  return figures;
}

}  // namespace PmBench
