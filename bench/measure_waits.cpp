#include <algorithm>
#include <csignal>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/booted_daemon.h"
#include "bench/burdened_daemon.h"
#include "bench/burdens.h"
#include "bench/clock.h"
#include "bench/floor.h"
#include "bench/host.h"
#include "bench/measures.h"
#include "bench/restarted_service.h"
#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"
#include "sandbox/raw_peer.h"
#include "sandbox/service_file.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

constexpr int kLooks = 40;
constexpr std::uint64_t kSeed = 20;  // The same run every time.
constexpr double kBriefMs = 5;
constexpr double kPassMs = 33;
constexpr int kKilled = 200;
constexpr int kKills = 5;
// Or what as many bare starts take in the same run, and a pass, if that is more.
constexpr double kAllBackMs = 75;

// The daemon with services that report, each of which is played and has reported.
class Reporters {
 public:
  explicit Reporters(int services) {
    PrepareHost(sandbox_);
    std::vector<PmSandbox::App> apps;
    for (int i = 0; i < services; ++i) {
      // The boot goes by the names.
      const std::string name = "service" + std::to_string(1000 + i);
      apps.push_back(RestartedService(name, marks_, {{"isReporting", "true"}}));
      servers_.push_back(std::make_unique<PmSandbox::RawServer>(sandbox_, name, 0));
    }
    const std::string path = std::string(PmSandbox::Sandbox::kDir) + "/base.yaml";
    sandbox_.WriteFile(path, PmSandbox::ServiceFile(apps));
    daemon_.emplace(sandbox_, std::vector<std::string>{path});
    for (const auto& server : servers_) {
      peers_.push_back(PmSandbox::AcceptReady(*server));
    }
    PmSandbox::Demand(log_.WaitFor("InitBaseApplication end").has_value(), "the boot hangs");
  }
  [[nodiscard]] const PmSandbox::Sandbox& Host() const { return sandbox_; }
  [[nodiscard]] const Marks& Services() const { return marks_; }
  [[nodiscard]] pid_t Pid() const { return daemon_->Pid(); }

 private:
  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  Marks marks_{sandbox_, "services"};
  std::vector<std::unique_ptr<PmSandbox::RawServer>> servers_;
  std::optional<PmSandbox::Daemon> daemon_;
  std::vector<PmSandbox::RawPeer> peers_;
};

// Kills the services of the last marks in a row. Yields how long they all are away.
double KillAllMs(const Marks& services) {
  const std::vector<Mark> marks = services.Await(kKilled);
  const long long killed = MonotonicNs();
  for (auto mark = marks.end() - kKilled; mark != marks.end(); ++mark) {
    (void)kill(mark->pid, SIGKILL);
  }
  const long long last = LastMainNs(services.Await(marks.size() + kKilled));
  return MsBetween(killed, last);
}

template <typename Booted>
Figure MeasureKilledAtOnce(const char* how, const Booted& daemon) {
  std::vector<double> floorMs;
  std::vector<double> awayMs;
  for (int i = 0; i < kKills; ++i) {
    const StartsAtOnce floor =
        MeasureFloorAtOnce(daemon.Host(), SizeOf(daemon.Pid()), kKilled, kKilled);
    floorMs.push_back(floor.startUs / 1e3);
    awayMs.push_back(KillAllMs(daemon.Services()));
  }
  const double floor = Percentile(floorMs, 0.5);
  return {std::string("waits: 200 killed at once, all back, ") + how, Percentile(awayMs, 0.5), "ms",
          floor, std::max(kAllBackMs, floor + kPassMs)};
}

}  // namespace

std::vector<Figure> MeasureWaits() {
  std::vector<Figure> figures = {
      MeasureKilledAtOnce("not reporting", BootedDaemon(kKilled, {{"restart", "on-forever"}})),
      MeasureKilledAtOnce("reporting", Reporters(kKilled))};
  using Look = BurdenedDaemon::Look;
  BurdenedDaemon::Impression alone;
  for (const BurdenKind& kind : AllBurdens()) {
    const bool isFirst = &kind == AllBurdens().data();
    BurdenedDaemon daemon(kind);
    const BurdenedDaemon::Impression seen = daemon.LookAround(kLooks, kSeed);
    if (isFirst) {
      alone = seen;
    }
    const std::string when = std::string("while ") + kind.name;
    const auto add = [&](const std::string& name, double Look::*part, double bound) {
      figures.push_back(
          {name, MedianOf(seen.looks, part), "ms", MedianOf(alone.looks, part), bound});
    };
    add(when + ": exit filed", &Look::filed, kBriefMs);
    add("  replacement's main", &Look::back, kPassMs);
    add("  another's query", &Look::answered, kBriefMs);
    figures.push_back({"  the boot goes on", seen.bootMs, "ms", alone.bootMs, kPassMs});
  }
  return figures;
}

}  // namespace PmBench
