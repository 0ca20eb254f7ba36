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
constexpr double kPassUs = 30'000;
constexpr double kAddedUs = 2'000;

// Kills the service of the last mark, again and again. Yields how long each took to come back, in
// microseconds.
std::vector<double> KillAndAwait(const BootedDaemon& daemon) {
  // At all distances from a check pass, as a real crash.
  std::mt19937 random(20);  // NOLINT(cert-msc51-cpp): the same run every time.
  std::uniform_int_distribution<int> pauseUs(0, 2 * static_cast<int>(kPassUs));
  std::vector<double> awayUs;
  pid_t pid = daemon.Services().Await(kServices).back().pid;
  for (std::size_t i = 0; i < kRestarts; ++i) {
    ProcMgr::SleepNs(pauseUs(random) * 1000LL);
    const long long killed = MonotonicNs();
    (void)kill(pid, SIGKILL);
    const Mark next = daemon.Services().Await(kServices + i + 1).back();
    awayUs.push_back(static_cast<double>(next.mainNs - killed) / 1e3);
    pid = next.pid;
  }
  return awayUs;
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
  const Starts floor = MeasureFloor(daemon.Host(), daemon.ResidentKib(), kRestarts);

  std::vector<double> awayUs;
  const double cpuUs = CpuUsOf(daemon.Pid(), idleUs, [&] { awayUs = KillAndAwait(daemon); });
  std::vector<double> childCpuUs;
  for (const Mark& mark : daemon.Services().Await(kServices + kRestarts)) {
    childCpuUs.push_back(static_cast<double>(mark.cpuNs) / 1e3);
  }

  const std::vector<double> immediateUs = AwayWithImmediateReaction();
  const double managerUs = cpuUs / kRestarts;
  const double childUs = Mean(childCpuUs);
  const double floorMedian = Percentile(floor.forkToMainUs, 0.5);
  const double floorP99 = Percentile(floor.forkToMainUs, 0.99);
  return {
      {"restart: CPU of the manager, exit to channel", managerUs, "us", floor.parentCpuUs, {}},
      {"restart: CPU of the child, from fork to main", childUs, "us", floor.childCpuUs, {}},
      // Half a pass to be seen at the median, a whole one at worst, and then the start itself.
      {"SIGKILL to the replacement's main, median of 200", Percentile(awayUs, 0.5) / 1e3, "ms",
       floorMedian / 1e3, (kPassUs / 2 + floorMedian + kAddedUs) / 1e3},
      {"SIGKILL to the replacement's main, p99 of 200", Percentile(awayUs, 0.99) / 1e3, "ms",
       floorP99 / 1e3, (kPassUs + floorP99 + kAddedUs) / 1e3},
      {"the same with an immediate reaction, median of 200", Percentile(immediateUs, 0.5) / 1e3,
       "ms", floorMedian / 1e3, kImmediateMedianMs},
      {"the same with an immediate reaction, p99 of 200", Percentile(immediateUs, 0.99) / 1e3, "ms",
       floorP99 / 1e3, kImmediateP99Ms},
  };
}

}  // namespace PmBench
