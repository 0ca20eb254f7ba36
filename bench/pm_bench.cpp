// pm-bench: what the real daemon costs, beside a bare fork and exec and beside its bounds.
//
// Needs root and an otherwise quiet machine. Ends with 1 if a figure lies above its bound.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/figures.h"
#include "bench/floor.h"
#include "bench/measured_file.h"
#include "bench/measures.h"

namespace {

struct Measure {
  const char* name = nullptr;
  std::vector<PmBench::Figure> (*run)() = nullptr;
  bool isForAsking = false;  // It takes a minute: measured only if it is named.
};

constexpr Measure kMeasures[] = {
    {"launch", &PmBench::MeasureLaunch},     {"restart", &PmBench::MeasureRestart},
    {"boot", &PmBench::MeasureBoot},         {"idle", &PmBench::MeasureIdle},
    {"requests", &PmBench::MeasureRequests}, {"many", &PmBench::MeasureMany},
    {"lookups", &PmBench::MeasureLookups},   {"status", &PmBench::MeasureStatus},
    {"waits", &PmBench::MeasureWaits},       {"scale", &PmBench::MeasureScale, true},
};

bool IsWanted(const Measure& measure, const std::vector<std::string>& names) {
  return names.empty() ? !measure.isForAsking
                       : std::find(names.begin(), names.end(), measure.name) != names.end();
}

int RunAll(int argc, char** argv) {
  CLI::App app{"Measures what the real daemon costs."};
  std::vector<std::string> names;
  std::string jsonPath;
  std::vector<std::string> known;
  for (const Measure& measure : kMeasures) {
    known.emplace_back(measure.name);
  }
  app.add_option("NAME", names, "what to measure; without a name everything but scale")
      ->check(CLI::IsMember(known));
  app.add_option("--json", jsonPath, "the file to write the figures and their samples to");
  CLI11_PARSE(app, argc, argv);
  bool isGood = true;
  nlohmann::json written = nlohmann::json::array();
  PmBench::PrintHeading();
  for (const Measure& measure : kMeasures) {
    if (!IsWanted(measure, names)) {
      continue;
    }
    for (const PmBench::Figure& figure : measure.run()) {
      PmBench::PrintFigure(figure);
      written.push_back(PmBench::JsonOf(figure));
      isGood = isGood && figure.IsWithinBound();
    }
    // After each, so that a later failure doesn't cost what there is.
    if (!jsonPath.empty()) {
      PmBench::WriteMeasured(jsonPath, "figures", written);
    }
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
