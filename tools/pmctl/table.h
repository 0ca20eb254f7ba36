// Columns of text for a terminal.
#ifndef TOOLS_PMCTL_TABLE_H
#define TOOLS_PMCTL_TABLE_H

#include <cstdint>
#include <string>
#include <vector>

namespace PmCtl {

enum class Colour : std::uint8_t { kPlain, kGood, kPending, kWrong, kFaint };

class Table {
 public:
  // A heading that begins with '>' is that of a column of numbers, which stand to the right.
  explicit Table(const std::vector<std::string>& headings);

  // As many cells as there are headings, of printable text. The whole row has the colour.
  void Add(const std::vector<std::string>& cells, Colour colour = Colour::kPlain);

  // A line a row below the headings, without blanks at its end.
  [[nodiscard]] std::string Text(bool isColoured) const;

 private:
  struct Row {
    std::vector<std::string> cells;
    Colour colour = Colour::kPlain;
  };

  [[nodiscard]] std::string Line(const Row& row) const;

  std::vector<bool> isNumber_;
  std::vector<std::size_t> widths_;
  std::vector<Row> rows_;
};

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_TABLE_H
