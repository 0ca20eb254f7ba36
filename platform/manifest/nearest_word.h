// The known word that somebody may have meant.
#ifndef PLATFORM_MANIFEST_NEAREST_WORD_H
#define PLATFORM_MANIFEST_NEAREST_WORD_H

#include <cstddef>
#include <span>
#include <string_view>

namespace ProcMgr::Manifest {

// How many single-character insertions, deletions and replacements make `a` into `b`.
[[nodiscard]] std::size_t EditDistance(std::string_view a, std::string_view b);

// The first of the nearest of `words`, which aren't empty, to `word`. Only the first 64 bytes of
// `word` count.
[[nodiscard]] std::string_view NearestWord(std::string_view word,
                                           std::span<const std::string_view> words);

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_NEAREST_WORD_H
