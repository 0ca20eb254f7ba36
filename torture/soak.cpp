#include <chrono>
#include <cstdio>
#include <string>

#include "base/steady_time.h"
#include "sandbox/process_table.h"
#include "torture/load.h"
#include "torture/require.h"
#include "torture/runs.h"

namespace PmTorture {
namespace {

struct Sample {
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  long residentKib = 0;
};

Sample Look(Stage& stage) {
  return {stage.Manager().Descriptors().size(), stage.Manager().ThreadCount(),
          std::stol(PmSandbox::StatusField(stage.Manager().Pid(), "VmRSS"))};
}

void Print(const char* when, const Load& load, const Sample& sample) {
  std::printf("soak: %s, %llu exits: %zu descriptors, %zu threads, %ld KiB\n", when,
              static_cast<unsigned long long>(load.Exits()), sample.descriptors, sample.threads,
              sample.residentKib);
  (void)std::fflush(stdout);
}

}  // namespace

void RunSoak(const Options& options) {
  constexpr std::size_t kOfEachKind = 16;
  constexpr int kWarmUp = 40;
  // What the allocator keeps varies by this much; a leak of a few bytes an exit passes it within
  // minutes.
  constexpr long kSlackKib = 1024;
  Load load(options.seed, kOfEachKind);
  for (int round = 0; round < kWarmUp; ++round) {
    load.Round();
  }
  const Sample before = Look(load.Platform());
  Print("warm", load, before);
  const ProcMgr::SteadyTime end = ProcMgr::SteadyNow() + std::chrono::minutes(options.minutes);
  while (ProcMgr::SteadyNow() < end) {
    load.Round();
  }
  load.Finish();
  const Sample after = Look(load.Platform());
  Print("at the end", load, after);
  Require(after.descriptors <= before.descriptors, "no descriptor is left open");
  Require(after.threads <= before.threads, "no thread is left");
  Require(after.residentKib <= before.residentKib + kSlackKib, "the memory doesn't grow");
}

}  // namespace PmTorture
