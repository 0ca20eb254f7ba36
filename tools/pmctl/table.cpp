#include "tools/pmctl/table.h"

#include <algorithm>
#include <array>

namespace PmCtl {
namespace {

// What switches a terminal to the colour, in the order of Colour.
constexpr std::array<const char*, 5> kSwitches = {"", "\033[32m", "\033[33m", "\033[1;31m",
                                                  "\033[2m"};
static_assert(kSwitches.size() == static_cast<std::size_t>(Colour::kFaint) + 1);

}  // namespace

Table::Table(const std::vector<std::string>& headings) {
  Row row;
  for (const std::string& heading : headings) {
    isNumber_.push_back(heading.starts_with('>'));
    row.cells.push_back(isNumber_.back() ? heading.substr(1) : heading);
    widths_.push_back(row.cells.back().size());
  }
  rows_.push_back(std::move(row));
}

void Table::Add(const std::vector<std::string>& cells, Colour colour) {
  Row& row = rows_.emplace_back();
  row.colour = colour;
  for (std::size_t i = 0; i < isNumber_.size(); ++i) {
    row.cells.push_back(cells.at(i));
    widths_[i] = std::max(widths_[i], row.cells.back().size());
  }
}

std::string Table::Line(const Row& row) const {
  std::string line;
  for (std::size_t i = 0; i < row.cells.size(); ++i) {
    const std::string space(widths_[i] - row.cells[i].size(), ' ');
    line += (i == 0 ? "" : "  ") + (isNumber_[i] ? space + row.cells[i] : row.cells[i] + space);
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

std::string Table::Text(bool isColoured) const {
  std::string text;
  for (const Row& row : rows_) {
    const std::string line = Line(row);
    const char* const colour = kSwitches.at(static_cast<std::size_t>(row.colour));
    text += isColoured && *colour != '\0' ? colour + line + "\033[0m\n" : line + "\n";
  }
  return text;
}

}  // namespace PmCtl
