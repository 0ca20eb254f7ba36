#include <algorithm>
#include <csignal>
#include <random>

#include "base/sleep.h"
#include "bench/booted_daemon.h"
#include "bench/clock.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kRestarts = 200;
// With a second one that stays: a manager without any child only looks for exits every 30 ms.
constexpr std::size_t kServices = 2;
constexpr double kPassMs = 30;
constexpr double kAddedMs = 2;

// Kills the service of the last mark, again and again. Yields how long each took to come back, in
// milliseconds.
std::vector<double> KillAndAwait(const BootedDaemon& daemon) {
  // At all distances from a check pass, as a real crash.
  std::mt19937 random(20);  // NOLINT(cert-msc51-cpp): the same run every time.
  std::uniform_int_distribution<int> pauseUs(0, 2 * 1000 * static_cast<int>(kPassMs));
  std::vector<double> awayMs;
  pid_t pid = daemon.Services().Await(kServices).back().pid;
  for (std::size_t i = 0; i < kRestarts; ++i) {
    ProcMgr::SleepNs(pauseUs(random) * 1000LL);
    const long long killed = MonotonicNs();
    (void)kill(pid, SIGKILL);
    const Mark next = daemon.Services().Await(kServices + i + 1).back();
    awayMs.push_back(MsBetween(killed, next.mainNs));
    pid = next.pid;
  }
  return awayMs;
}

const char* const kImmediate = "supervision:\n  reaction: immediate\n";
constexpr double kImmediateMedianMs = 0.8;
constexpr double kImmediateP99Ms = 2;

std::vector<double> AwayWithImmediateReaction() {
  const BootedDaemon daemon(kServices, {{"restart", "on-forever"}}, kImmediate);
  return KillAndAwait(daemon);
}

}  // namespace

std::vector<Figure> MeasureRestart() {
  const BootedDaemon daemon(kServices, {{"restart", "on-forever"}});
  const double idleUs = daemon.IdleCpuUsPerSecond(3);
  const Starts floor = MeasureFloor(daemon.Host(), SizeOf(daemon.Pid()), kRestarts);

  std::vector<double> awayMs;
  const double cpuUs = CpuUsOf(daemon.Pid(), idleUs, [&] { awayMs = KillAndAwait(daemon); });
  std::vector<double> childCpuUs;
  for (const Mark& mark : daemon.Services().Await(kServices + kRestarts)) {
    childCpuUs.push_back(static_cast<double>(mark.cpuNs) / 1e3);
  }

  const std::vector<double> immediateMs = AwayWithImmediateReaction();
  const double managerUs = cpuUs / kRestarts;
  const double childUs = Mean(childCpuUs);
  std::vector<double> floorMs = floor.forkToMainUs;
  std::for_each(floorMs.begin(), floorMs.end(), [](double& us) { us /= 1e3; });
  const double floorMedian = Percentile(floorMs, 0.5);
  const double floorP99 = Percentile(floorMs, 0.99);
  return {
      {"restart: CPU of the manager, exit to channel", managerUs, "us", floor.parentCpuUs, {}},
      {"restart: CPU of the child, from fork to main", childUs, "us", floor.childCpuUs, {}},
      // Half a pass to be seen at the median, a whole one at worst, and then the start itself.
      {"SIGKILL to the replacement's main, median of 200", Percentile(awayMs, 0.5), "ms",
       floorMedian, kPassMs / 2 + floorMedian + kAddedMs, awayMs, floorMs},
      {"SIGKILL to the replacement's main, p99 of 200", Percentile(awayMs, 0.99), "ms", floorP99,
       kPassMs + floorP99 + kAddedMs},
      {"the same with an immediate reaction, median of 200", Percentile(immediateMs, 0.5), "ms",
       floorMedian, kImmediateMedianMs, immediateMs},
      {"the same with an immediate reaction, p99 of 200", Percentile(immediateMs, 0.99), "ms",
       floorP99, kImmediateP99Ms},
  };
}

}  // namespace PmBench
