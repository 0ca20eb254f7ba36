#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <limits>
#include <string>

#include "bench/burdened_daemon.h"
#include "bench/figures.h"
#include "sandbox/wait.h"
#include "torture/require.h"
#include "torture/runs.h"
#include "torture/stage.h"

namespace PmTorture {
namespace {

using PmBench::BurdenedDaemon;
using Part = double BurdenedDaemon::Look::*;

// In milliseconds. What a look takes goes by several threads, for each of which a busy machine has
// no core for some milliseconds; whoever waited for a peer would wait 100 at least, in the boot for
// seconds.
const double kBriefMs = 50 * PmSandbox::PatienceFactor();
const double kPassMs = 33 + 2 * kBriefMs;
const double kBootMs = 10 * kBriefMs;

std::string MedianAndWorst(const BurdenedDaemon::Impression& seen, Part part) {
  std::array<char, 48> text{};
  const auto worst = std::max_element(
      seen.looks.begin(), seen.looks.end(),
      [part](const auto& left, const auto& right) { return left.*part < right.*part; });
  (void)std::snprintf(text.data(), text.size(), "%8.2f %8.2f", PmBench::MedianOf(seen.looks, part),
                      (*worst).*part);
  return text.data();
}

void Judge(const std::string& when, const BurdenedDaemon::Impression& seen) {
  const auto isBrief = [&](Part part, double bound) {
    return PmBench::MedianOf(seen.looks, part) < bound;
  };
  using Look = BurdenedDaemon::Look;
  Require(isBrief(&Look::filed, kBriefMs), when + " an exit is filed as ever");
  Require(isBrief(&Look::back, kPassMs), when + " a replacement comes up as ever");
  Require(isBrief(&Look::answered, kBriefMs), when + " another's query is answered as ever");
  Require(seen.bootMs < kBootMs, when + " the boot goes on as ever");
}

void LookAtIt(const PmBench::BurdenKind& kind, const Options& options) {
  const std::string when = std::string("while ") + kind.name;
  BurdenedDaemon daemon(kind);
  BurdenedDaemon::Holding most = daemon.Holds();
#ifdef PM_SANITIZED  // It keeps what is freed, to find who uses it still.
  most.memoryKib = std::numeric_limits<long>::max();
#else
  most.memoryKib += kind.keptKib;
#endif
  try {
    const BurdenedDaemon::Impression seen = daemon.LookAround(options.looks, options.seed);
    std::printf("neighbours: %-44s %8.2f", when.c_str(), seen.bootMs);
    for (const Part part : {&BurdenedDaemon::Look::filed, &BurdenedDaemon::Look::back,
                            &BurdenedDaemon::Look::answered}) {
      std::printf(" %s", MedianAndWorst(seen, part).c_str());
    }
    std::printf("\n");
    (void)std::fflush(stdout);
    Judge(when, seen);
    daemon.AwaitHolding(most);
    daemon.Process().KillAll();
    Require(daemon.Process().SanitizerReport().empty(), daemon.Process().SanitizerReport());
  } catch (const std::exception& error) {
    ShowEnd(daemon.Log());
    throw Broken(when + ": " + error.what());
  }
}

}  // namespace

void RunNeighbours(const Options& options) {
  std::printf("neighbours: %d kills each, median and worst in ms\n", options.looks);
  std::printf("neighbours: %-44s %8s %17s %17s %17s\n", "", "boot", "exit filed", "replacement",
              "query");
  for (const PmBench::BurdenKind& kind : PmBench::AllBurdens()) {
    LookAtIt(kind, options);
  }
}

}  // namespace PmTorture
