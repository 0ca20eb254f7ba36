// Small tests and conversions of text.
#ifndef BASE_TEXT_H
#define BASE_TEXT_H

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

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

// The bounds of "FIRST-LAST", or of "N", which is the range from N to N; none for anything else, or
// if the last is below the first or not below `end`.
[[nodiscard]] inline std::optional<std::pair<std::uint32_t, std::uint32_t>> ParseRange(
    std::string_view text, std::uint32_t end) {
  const std::size_t dash = text.find('-');
  const auto first = ParseNumber<std::uint32_t>(text.substr(0, dash));
  const auto last =
      dash == std::string_view::npos ? first : ParseNumber<std::uint32_t>(text.substr(dash + 1));
  if (!first || !last || *first > *last || *last >= end) {
    return std::nullopt;
  }
  return std::pair{*first, *last};
}

}  // namespace ProcMgr

#endif  // BASE_TEXT_H
