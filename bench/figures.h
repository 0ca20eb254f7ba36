// Figures: what was measured, beside the floor of the same run and the bound.
#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <optional>
#include <string>
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

  [[nodiscard]] bool IsWithinBound() const { return !bound.has_value() || value <= *bound; }
};

void PrintHeading();
void PrintFigure(const Figure& figure);

// Of a list that isn't empty. `part` from 0 to 1: 0.5 is the median.
double Percentile(std::vector<double> values, double part);
double Mean(const std::vector<double>& values);

}  // namespace PmBench

#endif  // BENCH_FIGURES_H
