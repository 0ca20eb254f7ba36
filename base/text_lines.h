// Walking through a text line by line.
#ifndef BASE_TEXT_LINES_H
#define BASE_TEXT_LINES_H

#include <algorithm>
#include <string_view>

namespace ProcMgr {

// Takes the first line off `rest` and yields it with its newline, if it has one. Loop while `rest`
// isn't empty: a last line without a newline counts, and nothing follows a last newline.
[[nodiscard]] inline std::string_view TakeRawLine(std::string_view& rest) {
  const std::size_t newline = std::min(rest.find('\n'), rest.size());
  const std::string_view line = rest.substr(0, newline + 1);
  rest.remove_prefix(line.size());
  return line;
}

// The same without the newline.
[[nodiscard]] inline std::string_view TakeLine(std::string_view& rest) {
  std::string_view line = TakeRawLine(rest);
  if (line.ends_with('\n')) {
    line.remove_suffix(1);
  }
  return line;
}

}  // namespace ProcMgr

#endif  // BASE_TEXT_LINES_H
