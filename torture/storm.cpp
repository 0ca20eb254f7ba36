#include <cstdio>

#include "base/steady_time.h"
#include "torture/bystanders.h"
#include "torture/few_pids.h"
#include "torture/load.h"
#include "torture/require.h"
#include "torture/runs.h"

namespace PmTorture {

namespace {

void Storm(const Options& options) {
  constexpr std::size_t kOfEachKind = 24;
  constexpr std::size_t kBystanders = 64;
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  Load load(options.seed, kOfEachKind);
  const Bystanders bystanders(kBystanders);
  while (load.Exits() < options.exits) {
    load.Round();
  }
  load.Finish();
  const std::chrono::duration<double> time = ProcMgr::SteadyNow() - begin;
  std::printf(
      "storm: %llu exits, %llu requests of 8 agents, %zu strangers among them, pids wrapped %zu "
      "times, %.0f s; lost 0, doubled 0, strangers hit %zu\n",
      static_cast<unsigned long long>(load.Exits()),
      static_cast<unsigned long long>(load.Requests()), bystanders.Lived(), bystanders.Wraps(),
      time.count(), bystanders.Hit());
  Require(bystanders.Hit() == 0, "no stranger gets a signal");
}

}  // namespace

void RunStorm(const Options& options) {
  AmongFewPids([&] { Storm(options); });
}

}  // namespace PmTorture
