// pm-torture: the promises of the real manager, put to the test for as long as one likes.
//
// Needs root. Ends with 1 at the first promise that is broken, with the command that repeats the
// run.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "torture/require.h"
#include "torture/runs.h"

namespace {

struct Run {
  const char* name;
  void (*run)(const PmTorture::Options& options);
};

constexpr Run kRuns[] = {
    {"storm", &PmTorture::RunStorm},           {"soak", &PmTorture::RunSoak},
    {"upgrade", &PmTorture::RunUpgrade},       {"clock", &PmTorture::RunClock},
    {"neighbours", &PmTorture::RunNeighbours}, {"faults", &PmTorture::RunFaults}};

bool Do(const Run& run, const PmTorture::Options& options) {
  try {
    run.run(options);
    return true;
  } catch (const std::exception& broken) {
    (void)std::fprintf(stderr,
                       "pm-torture: %s: broken: %s\nrepeat: pm-torture %s --seed %llu --exits %llu "
                       "--minutes %d --looks %d --lives %d\n",
                       run.name, broken.what(), run.name,
                       static_cast<unsigned long long>(options.seed),
                       static_cast<unsigned long long>(options.exits), options.minutes,
                       options.looks, options.lives);
    return false;
  }
}

int RunAll(int argc, char** argv) {
  CLI::App app{"Puts the real manager's promises to the test."};
  PmTorture::Options options;
  options.seed = std::random_device()();
  std::vector<std::string> names;
  std::vector<std::string> known;
  for (const Run& run : kRuns) {
    known.emplace_back(run.name);
  }
  app.add_option("NAME", names, "what to run; everything without a name")
      ->check(CLI::IsMember(known));
  app.add_option("--seed", options.seed, "of the random order; without it another one each time")
      ->envname("PM_TORTURE_SEED");
  app.add_option("--exits", options.exits, "how many exits storm brings about")
      ->capture_default_str();
  app.add_option("--looks", options.looks, "how many kills neighbours makes under each burden")
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  app.add_option("--lives", options.lives,
                 "how many of the faults are tried, in random order; without it all");
  app.add_option("--fault", options.fault,
                 "the fault, or a part of its name: CALL:manager|child:N:ERRNO, N 0 for a while");
  app.add_option("--minutes", options.minutes, "how long soak lasts")
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  app.add_option("--json", options.json, "the file to write soak's samples to");
  CLI11_PARSE(app, argc, argv);
  std::printf("seed %llu\n", static_cast<unsigned long long>(options.seed));
  (void)std::fflush(stdout);
  bool isGood = true;
  for (const Run& run : kRuns) {
    if (names.empty() || std::find(names.begin(), names.end(), run.name) != names.end()) {
      isGood = Do(run, options) && isGood;
    }
  }
  return isGood ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunAll(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "pm-torture: %s\n", error.what());
    return 2;
  }
}
