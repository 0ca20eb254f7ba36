#include "bench/figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>

namespace PmBench {
namespace {

std::string Text(const std::optional<double>& value) {
  if (!value.has_value()) {
    return "-";
  }
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%.2f", *value);
  return text;
}

}  // namespace

void PrintHeading() {
  std::printf("%-52s %12s %12s %12s  %-10s\n", "", "measured", "floor", "bound", "unit");
}

void PrintFigure(const Figure& figure) {
  std::printf("%-52s %12.2f %12s %12s  %-10s%s\n", figure.name.c_str(), figure.value,
              Text(figure.floor).c_str(), Text(figure.bound).c_str(), figure.unit.c_str(),
              figure.IsWithinBound() ? "" : "  ABOVE ITS BOUND");
  (void)std::fflush(stdout);
}

nlohmann::json JsonOf(const Figure& figure) {
  nlohmann::json json = {{"name", figure.name}, {"value", figure.value}, {"unit", figure.unit}};
  if (figure.floor.has_value()) {
    json["floor"] = *figure.floor;
  }
  if (figure.bound.has_value()) {
    json["bound"] = *figure.bound;
  }
  if (!figure.samples.empty()) {
    json["samples"] = figure.samples;
  }
  if (!figure.floorSamples.empty()) {
    json["floorSamples"] = figure.floorSamples;
  }
  if (!figure.curve.empty()) {
    json["curve"] = figure.curve;
    json["services"] = figure.services;
  }
  return json;
}

double Percentile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(part * static_cast<double>(values.size()));
  return values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

double Mean(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

}  // namespace PmBench
