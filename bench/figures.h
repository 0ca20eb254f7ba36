// Figures: what was measured, beside the floor of the same run and the bound.
#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <algorithm>
#include <functional>
#include <iterator>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace PmBench {

struct Figure {
  std::string name;
  double value = 0;
  std::string unit;
  // The same of a bare fork and exec, in the same unit.
  std::optional<double> floor;
  // What the value may not exceed.
  std::optional<double> bound;
  // The single measurements behind the value and behind the floor, if their distribution is worth
  // looking at; in the same unit.
  std::vector<double> samples = {};
  std::vector<double> floorSamples = {};
  // Of how many services it tells, if it is a point of a curve over their number, and of which.
  int services = 0;
  std::string curve = {};

  [[nodiscard]] bool IsWithinBound() const { return !bound.has_value() || value <= *bound; }
};

void PrintHeading();
void PrintFigure(const Figure& figure);
// With all that there is in the figure.
[[nodiscard]] nlohmann::json JsonOf(const Figure& figure);

// Of a list that isn't empty. `part` from 0 to 1: 0.5 is the median.
double Percentile(std::vector<double> values, double part);
double Mean(const std::vector<double>& values);

// The median of one figure of each, which `get` picks: a function, or a pointer to a member.
template <typename Each, typename Get>
double MedianOf(const std::vector<Each>& all, Get get) {
  std::vector<double> values;
  std::transform(all.begin(), all.end(), std::back_inserter(values), std::mem_fn(get));
  return Percentile(std::move(values), 0.5);
}

}  // namespace PmBench

#endif  // BENCH_FIGURES_H
