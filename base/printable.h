// Text from files and peers as it may stand in a log line.
#ifndef BASE_PRINTABLE_H
#define BASE_PRINTABLE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ProcMgr {

// How much of one value a log line shows, in bytes of the value.
inline constexpr std::size_t kShownValueBytes = 80;
// The same for a path: the longest one that the kernel takes.
inline constexpr std::size_t kShownPathBytes = 4096;

// `text` with every byte that isn't printable ASCII written as "\xNN", cut with "..." after `limit`
// bytes. A log line must not carry terminal escapes or line breaks that somebody put in there.
[[nodiscard]] std::string Printable(std::string_view text, std::size_t limit = kShownValueBytes);

// The same in double quotes.
[[nodiscard]] std::string Quoted(std::string_view text);

}  // namespace ProcMgr

#endif  // BASE_PRINTABLE_H
