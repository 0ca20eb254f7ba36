#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "base/steady_time.h"
#include "bench/clock.h"
#include "bench/host.h"
#include "bench/measured_file.h"
#include "sandbox/wait.h"
#include "torture/load.h"
#include "torture/require.h"
#include "torture/runs.h"

namespace PmTorture {
namespace {

struct Sample {
  double seconds = 0;
  std::uint64_t exits = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  long residentKib = 0;
  double cpuSeconds = 0;
};

void Print(const char* when, const Sample& sample) {
  std::printf("soak: %s, %llu exits: %zu descriptors, %zu threads, %ld KiB\n", when,
              static_cast<unsigned long long>(sample.exits), sample.descriptors, sample.threads,
              sample.residentKib);
  (void)std::fflush(stdout);
}

// Samples over the time of a run, and in a file that is whole at any moment.
class History {
 public:
  // No file is written without a path. `length` is how long the run will last.
  History(Load& load, std::string path, std::chrono::seconds length)
      : load_(load),
        path_(std::move(path)),
        step_(std::max<std::chrono::milliseconds>(length / kSamples, kStep)) {
    Take();
  }

  [[nodiscard]] const std::vector<Sample>& Samples() const { return samples_; }

  void Take() {
    const ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
    next_ = now + step_;
    Stage& stage = load_.Platform();
    samples_.push_back({std::chrono::duration<double>(now - begin_).count(), load_.Exits(),
                        stage.Manager().Descriptors().size(), stage.Manager().ThreadCount(),
                        PmBench::ResidentKib(stage.Manager().Pid()),
                        static_cast<double>(PmBench::CpuNs(stage.Manager().Pid())) / 1e9});
    if (!path_.empty()) {
      Write();
    }
  }

  // Takes a sample if the last one lies far enough back.
  void TakeIfDue() {
    if (ProcMgr::SteadyNow() >= next_) {
      Take();
    }
  }

 private:
  static constexpr int kSamples = 300;
  static constexpr std::chrono::milliseconds kStep{1000};

  void Write() const {
    nlohmann::json list = nlohmann::json::array();
    for (const Sample& sample : samples_) {
      list.push_back({{"seconds", sample.seconds},
                      {"exits", sample.exits},
                      {"descriptors", sample.descriptors},
                      {"threads", sample.threads},
                      {"residentKib", sample.residentKib},
                      {"cpuSeconds", sample.cpuSeconds}});
    }
    PmBench::WriteMeasured(path_, "soak", list);
  }

  Load& load_;
  const std::string path_;
  const std::chrono::milliseconds step_;
  const ProcMgr::SteadyTime begin_ = ProcMgr::SteadyNow();
  ProcMgr::SteadyTime next_;
  std::vector<Sample> samples_;
};

// The slope of the straight line that comes nearest to the samples: KiB for each exit.
double KibPerExit(const std::vector<Sample>& samples) {
  const auto mean = [&samples](auto get) {
    return std::accumulate(samples.begin(), samples.end(), 0.0,
                           [&get](double sum, const Sample& one) { return sum + get(one); }) /
           static_cast<double>(samples.size());
  };
  const double exits = mean([](const Sample& one) { return static_cast<double>(one.exits); });
  const double kib = mean([](const Sample& one) { return static_cast<double>(one.residentKib); });
  const auto off = [exits](const Sample& one) { return static_cast<double>(one.exits) - exits; };
  return mean([&](const Sample& one) {
           return off(one) * (static_cast<double>(one.residentKib) - kib);
         }) /
         mean([&](const Sample& one) { return off(one) * off(one); });
}

// Openings come and go all the time: the fewest descriptors of the first half are those without
// one.
void RequireNothingLeft(Stage& stage, const std::vector<Sample>& samples) {
  const auto fewest = [&samples](std::size_t Sample::*member) {
    const auto middle = samples.begin() + (std::ssize(samples) + 1) / 2;
    return std::transform_reduce(
        samples.begin(), middle, SIZE_MAX,
        [](std::size_t left, std::size_t right) { return std::min(left, right); },
        std::mem_fn(member));
  };
  Require(PmSandbox::Eventually(
              [&] { return stage.Manager().Descriptors().size() <= fewest(&Sample::descriptors); }),
          "no descriptor is left open");
  Require(PmSandbox::Eventually(
              [&] { return stage.Manager().ThreadCount() <= fewest(&Sample::threads); }),
          "no thread is left");
}

double CpuUsPerExit(const Sample& begin, const Sample& end) {
  return (end.cpuSeconds - begin.cpuSeconds) * 1e6 / static_cast<double>(end.exits - begin.exits);
}

// In the second half of the run everything that is kept for good has come to be.
void JudgeTrend(const std::vector<Sample>& samples) {
  // What the allocator keeps varies by this much; a leak of a few bytes an exit passes it within
  // minutes.
  constexpr double kMostKib = 512;
  constexpr double kMostTimesCpu = 1.5;  // Another load of the machine makes some difference.
  const auto middle = samples.begin() + std::ssize(samples) / 2;
  const std::vector<Sample> half(middle, samples.end());
  const double kibPerExit = KibPerExit(half);
  const double firstUs = CpuUsPerExit(samples.front(), *middle);
  const double secondUs = CpuUsPerExit(*middle, samples.back());
  std::printf(
      "soak: the second half: %+.2f bytes an exit, %.0f us of CPU an exit (the first: %.0f)\n",
      kibPerExit * 1024, secondUs, firstUs);
  Require(kibPerExit * static_cast<double>(half.back().exits - half.front().exits) <= kMostKib,
          "the memory has no trend");
  Require(secondUs <= kMostTimesCpu * firstUs, "an exit gets no dearer");
}

}  // namespace

void RunSoak(const Options& options) {
  constexpr std::size_t kOfEachKind = 16;
  constexpr int kWarmUp = 40;
  Load load(options.seed, kOfEachKind);
  for (int round = 0; round < kWarmUp; ++round) {
    load.Round();
  }
  const std::chrono::minutes length(options.minutes);
  History history(load, options.json, length);
  Print("warm", history.Samples().front());
  const ProcMgr::SteadyTime end = ProcMgr::SteadyNow() + length;
  while (ProcMgr::SteadyNow() < end) {
    load.Round();
    history.TakeIfDue();
  }
  load.Finish();
  RequireNothingLeft(load.Platform(), history.Samples());
  history.Take();
  Print("at the end", history.Samples().back());
  JudgeTrend(history.Samples());
}

}  // namespace PmTorture
