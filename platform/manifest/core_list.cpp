#include "platform/manifest/core_list.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/text.h"

namespace ProcMgr::Manifest {
namespace {

std::string_view Trimmed(std::string_view text) {
  static constexpr std::string_view kBlanks = " \t";
  const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::optional<std::uint32_t> ParseCore(std::string_view text) {
  const std::optional<std::uint32_t> core = ParseNumber<std::uint32_t>(Trimmed(text));
  return core && *core <= kMaxCore ? core : std::nullopt;
}

// "N" is the range from N to N.
std::optional<std::pair<std::uint32_t, std::uint32_t>> ParseRange(std::string_view text) {
  const std::size_t dash = text.find('-');
  const auto low = ParseCore(text.substr(0, dash));
  const auto high = dash == std::string_view::npos ? low : ParseCore(text.substr(dash + 1));
  if (!low || !high || *low > *high) {
    return std::nullopt;
  }
  return std::pair(*low, *high);
}

}  // namespace

bool CoreList::Append(std::string_view text) {
  std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
  for (bool isLast = false; !isLast;) {
    const std::size_t comma = text.find(',');
    const auto range = ParseRange(text.substr(0, comma));
    if (!range) {
      return false;
    }
    ranges.push_back(*range);
    isLast = comma == std::string_view::npos;
    text.remove_prefix(isLast ? text.size() : comma + 1);
  }
  for (const auto& [low, high] : ranges) {
    for (std::uint32_t core = low; core <= high; ++core) {
      if (!taken_.test(core)) {
        taken_.set(core);
        cores_.push_back(core);
      }
    }
  }
  return true;
}

}  // namespace ProcMgr::Manifest
