// pm-bench: what the real daemon costs, beside a bare fork and exec and beside its bounds.
//
// Needs root and an otherwise quiet machine. Ends with 1 if a figure lies above its bound.
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "bench/figures.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace {

struct Measure {
  const char* name;
  std::vector<PmBench::Figure> (*run)();
};

constexpr Measure kMeasures[] = {
    {"launch", &PmBench::MeasureLaunch},     {"restart", &PmBench::MeasureRestart},
    {"boot", &PmBench::MeasureBoot},         {"idle", &PmBench::MeasureIdle},
    {"requests", &PmBench::MeasureRequests}, {"many", &PmBench::MeasureMany},
    {"lookups", &PmBench::MeasureLookups},   {"status", &PmBench::MeasureStatus},
    {"waits", &PmBench::MeasureWaits},
};

int Usage() {
  (void)std::fprintf(stderr, "usage: pm-bench [NAME...], with NAME one of:");
  for (const Measure& measure : kMeasures) {
    (void)std::fprintf(stderr, " %s", measure.name);
  }
  (void)std::fprintf(stderr, "\n");
  return 2;
}

const Measure* Find(const char* name) {
  for (const Measure& measure : kMeasures) {
    if (std::strcmp(measure.name, name) == 0) {
      return &measure;
    }
  }
  return nullptr;
}

bool Run(const Measure& measure) {
  bool isGood = true;
  for (const PmBench::Figure& figure : measure.run()) {
    PmBench::PrintFigure(figure);
    isGood = isGood && figure.IsWithinBound();
  }
  return isGood;
}

int RunAll(int argc, char** argv) {
  std::vector<const Measure*> chosen;
  for (int i = 1; i < argc; ++i) {
    chosen.push_back(Find(argv[i]));
    if (chosen.back() == nullptr) {
      return Usage();
    }
  }
  if (chosen.empty()) {
    for (const Measure& measure : kMeasures) {
      chosen.push_back(&measure);
    }
  }
  bool isGood = true;
  PmBench::PrintHeading();
  for (const Measure* const measure : chosen) {
    isGood = Run(*measure) && isGood;
  }
  return isGood ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (PmBench::IsStartingProcess(argc, argv)) {
      return PmBench::RunStartingProcess(argc, argv);
    }
    return RunAll(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "pm-bench: %s\n", error.what());
    return 2;
  }
}
