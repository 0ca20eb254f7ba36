#include "platform/manifest/nearest_word.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace ProcMgr::Manifest {

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

std::string_view NearestWord(std::string_view word, std::span<const std::string_view> words) {
  static constexpr std::size_t kComparedBytes = 64;
  const std::string_view start = word.substr(0, kComparedBytes);
  return *std::min_element(words.begin(), words.end(), [start](auto a, auto b) {
    return EditDistance(start, a) < EditDistance(start, b);
  });
}

}  // namespace ProcMgr::Manifest
