#include "bench/burdened_daemon.h"

#include <cerrno>
#include <csignal>
#include <random>
#include <utility>
#include <vector>

#include "base/sleep.h"
#include "bench/clock.h"
#include "bench/host.h"
#include "bench/restarted_service.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

using PmSandbox::Demand;

// The manager reaps an exit as soon as it is filed.
void AwaitReaped(pid_t pid) {
  constexpr long long kStepNs = 100'000;
  const long long deadline = MonotonicNs() + std::chrono::nanoseconds(PmSandbox::kPatience).count();
  while (kill(pid, 0) == 0 || errno != ESRCH) {
    Demand(MonotonicNs() < deadline, "an exit isn't filed");
    ProcMgr::SleepNs(kStepNs);
  }
}

}  // namespace

BurdenedDaemon::BurdenedDaemon(const BurdenKind& kind)
    : burden_(kind.make(sandbox_, log_)), daemon_(sandbox_, {Prepare()}) {
  Demand(agent_.BecomeReady(), "the agent gets no channel:\n" + log_.Text());
  burden_->Serve();
  Demand(gate_.AwaitChannel(), "the boot doesn't come to its last service:\n" + log_.Text());
  // From its first restart on "victim" has a channel, as long as it lives.
  Restart(victim_);
  const auto isOpen = [](const PmSandbox::LogLine& line) {
    return line.text.find("owner=victim, ") != std::string::npos &&
           line.text.ends_with("restart success");
  };
  Demand(log_.WaitFor(isOpen).has_value(), "no channel:\n" + log_.Text());
}

std::string BurdenedDaemon::Prepare() const {
  PrepareHost(sandbox_);
  const std::string reporting = "isReporting";
  std::vector<PmSandbox::App> apps = {RestartedService("agent", services_, {{reporting, "true"}})};
  for (PmSandbox::App& app : burden_->Services()) {
    apps.push_back(std::move(app));
  }
  apps.push_back(RestartedService("victim", victim_, {}, true));
  apps.push_back(
      RestartedService("gate", services_, {{reporting, "true"}, {"dependList", "[agent]"}}));
  apps.push_back(RestartedService("late", late_, {{"dependList", "[gate]"}}, true));
  std::string path = std::string(PmSandbox::Sandbox::kDir) + "/base.yaml";
  sandbox_.WriteFile(path, PmSandbox::ServiceFile(apps));
  return path;
}

BurdenedDaemon::Impression BurdenedDaemon::LookAround(int looks, std::uint64_t seed) {
  Impression seen;
  burden_->Renew();
  seen.bootMs = FinishBoot();
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<int> pauseUs(0, 30'000);
  while (static_cast<int>(seen.looks.size()) < looks) {
    ProcMgr::SleepNs(pauseUs(random) * 1000LL);
    burden_->Renew();
    seen.looks.push_back(LookOnce());
  }
  burden_->End();
  return seen;
}

// How long "late" takes to its main.
double BurdenedDaemon::FinishBoot() {
  const long long begin = MonotonicNs();
  Demand(gate_.ReportState(PmSandbox::kStateReady), "no channel");
  return MsBetween(begin, late_.Await(1).back().mainNs);
}

BurdenedDaemon::Look BurdenedDaemon::LookOnce() {
  const std::vector<Mark> lives = victim_.Await(1);
  Look look;
  const long long asked = MonotonicNs();
  Demand(agent_.Query({"nobody"}).size() == 1, "no answer");
  look.answered = MsBetween(asked, MonotonicNs());
  const long long killed = MonotonicNs();
  KillLast(victim_);
  AwaitReaped(lives.back().pid);
  look.filed = MsBetween(killed, MonotonicNs());
  look.back = MsBetween(killed, victim_.Await(lives.size() + 1).back().mainNs);
  return look;
}

BurdenedDaemon::Holding BurdenedDaemon::Holds() const {
  return {daemon_.Descriptors().size(), daemon_.ThreadCount(),
          std::stol(PmSandbox::StatusField(daemon_.Pid(), "RssAnon"))};
}

void BurdenedDaemon::AwaitHolding(const Holding& most) const {
  const auto text = [](const Holding& one) {
    return std::to_string(one.descriptors) + " descriptors, " + std::to_string(one.threads) +
           " threads, " + std::to_string(one.memoryKib) + " KiB";
  };
  const bool isHeld = PmSandbox::Eventually([&] {
    const Holding now = Holds();
    return now.descriptors <= most.descriptors && now.threads <= most.threads &&
           now.memoryKib <= most.memoryKib;
  });
  Demand(isHeld, "left open: " + text(Holds()) + "; at most " + text(most) + " are expected");
}

}  // namespace PmBench
