// The known word that somebody may have meant.
#ifndef BASE_NEAREST_WORD_H
#define BASE_NEAREST_WORD_H

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace ProcMgr {

// How many single-character insertions, deletions and replacements make `a` into `b`.
[[nodiscard]] std::size_t EditDistance(std::string_view a, std::string_view b);

// The first of the nearest of `words` to `word` that differ from it by at most `limit` such
// changes; none if all are farther away. Made for many words: what is too far away is given up
// early.
[[nodiscard]] std::optional<std::string_view> FindNearWord(std::string_view word,
                                                           std::span<const std::string_view> words,
                                                           std::size_t limit);

// The first of the nearest of `words`, which aren't empty, to `word`. Only the first 64 bytes of
// `word` count.
[[nodiscard]] std::string_view NearestWord(std::string_view word,
                                           std::span<const std::string_view> words);

}  // namespace ProcMgr

#endif  // BASE_NEAREST_WORD_H
