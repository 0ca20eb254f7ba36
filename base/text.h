// Small tests and conversions of text.
#ifndef BASE_TEXT_H
#define BASE_TEXT_H

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace ProcMgr {

// True if no character fails isdigit, so true for the empty text.
[[nodiscard]] inline bool IsStrDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The number that the whole of `text` is; none for anything else, or if it doesn't fit.
template <typename Number>
[[nodiscard]] std::optional<Number> ParseNumber(std::string_view text, int base = 10) {
  Number value{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc{} || stop != end) {
    return std::nullopt;
  }
  return value;
}

}  // namespace ProcMgr

#endif  // BASE_TEXT_H
