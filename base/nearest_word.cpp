#include "base/nearest_word.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace ProcMgr {

std::size_t EditDistance(std::string_view a, std::string_view b) {
  // One row of the table: the distance of the part of `a` so far to each beginning of `b`.
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

namespace {

// EditDistance if it is at most `limit`, else a larger number. Only the part of the table within
// `limit` of its diagonal can hold such a small one.
std::size_t EditDistanceWithin(std::string_view a, std::string_view b, std::size_t limit) {
  const std::size_t tooFar = limit + 1;
  if (std::max(a.size(), b.size()) - std::min(a.size(), b.size()) > limit) {
    return tooFar;
  }
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    const std::size_t first = i > limit ? i - limit : 0;
    const std::size_t last = std::min(b.size(), i + limit + 1);
    std::size_t diagonal = row[first];
    row[first] = first == 0 ? i + 1 : tooFar;
    std::size_t best = row[first];
    for (std::size_t j = first; j < last; ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      // The last column of the part wasn't in the one above.
      const std::size_t above = j == i + limit ? tooFar : row[j + 1] + 1;
      row[j + 1] = std::min({replaced, above, row[j] + 1});
      best = std::min(best, row[j + 1]);
    }
    if (best > limit) {
      return tooFar;
    }
  }
  return row.back();
}

}  // namespace

std::optional<std::string_view> FindNearWord(std::string_view word,
                                             std::span<const std::string_view> words,
                                             std::size_t limit) {
  std::optional<std::string_view> nearest;
  std::size_t allowed = limit + 1;  // One more than the next one may be away.
  for (const std::string_view candidate : words) {
    if (allowed == 0) {
      break;
    }
    const std::size_t distance = EditDistanceWithin(word, candidate, allowed - 1);
    if (distance < allowed) {
      nearest = candidate;
      allowed = distance;
    }
  }
  return nearest;
}

std::string_view NearestWord(std::string_view word, std::span<const std::string_view> words) {
  static constexpr std::size_t kComparedBytes = 64;
  const std::string_view start = word.substr(0, kComparedBytes);
  return *std::min_element(words.begin(), words.end(), [start](auto a, auto b) {
    return EditDistance(start, a) < EditDistance(start, b);
  });
}

}  // namespace ProcMgr
