#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "base/steady_time.h"
#include "bench/clock.h"
#include "bench/host.h"
#include "bench/measured_file.h"
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
          PmBench::ResidentKib(stage.Manager().Pid())};
}

void Print(const char* when, const Load& load, const Sample& sample) {
  std::printf("soak: %s, %llu exits: %zu descriptors, %zu threads, %ld KiB\n", when,
              static_cast<unsigned long long>(load.Exits()), sample.descriptors, sample.threads,
              sample.residentKib);
  (void)std::fflush(stdout);
}

// Samples over the time of a run, in a file that is whole at any moment.
class History {
 public:
  // Nothing is kept without a path. `length` is how long the run will last.
  History(std::string path, std::chrono::seconds length)
      : path_(std::move(path)),
        step_(std::max<std::chrono::milliseconds>(length / kSamples, kStep)) {}

  // Takes a sample if the last one lies far enough back.
  void Note(Load& load) {
    const ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
    if (path_.empty() || now < next_) {
      return;
    }
    next_ = now + step_;
    const Sample sample = Look(load.Platform());
    samples_.push_back(
        {{"seconds", std::chrono::duration<double>(now - begin_).count()},
         {"exits", load.Exits()},
         {"descriptors", sample.descriptors},
         {"threads", sample.threads},
         {"residentKib", sample.residentKib},
         {"cpuSeconds",
          static_cast<double>(PmBench::CpuNs(load.Platform().Manager().Pid())) / 1e9}});
    PmBench::WriteMeasured(path_, "soak", samples_);
  }

 private:
  static constexpr int kSamples = 300;
  static constexpr std::chrono::milliseconds kStep{1000};

  const std::string path_;
  const std::chrono::milliseconds step_;
  const ProcMgr::SteadyTime begin_ = ProcMgr::SteadyNow();
  ProcMgr::SteadyTime next_ = begin_;
  nlohmann::json samples_ = nlohmann::json::array();
};

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
  History history(options.json, std::chrono::minutes(options.minutes));
  while (ProcMgr::SteadyNow() < end) {
    load.Round();
    history.Note(load);
  }
  load.Finish();
  const Sample after = Look(load.Platform());
  Print("at the end", load, after);
  Require(after.descriptors <= before.descriptors, "no descriptor is left open");
  Require(after.threads <= before.threads, "no thread is left");
  Require(after.residentKib <= before.residentKib + kSlackKib, "the memory doesn't grow");
}

}  // namespace PmTorture
