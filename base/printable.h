// Text from files and peers as it may stand in a log line or on a terminal.
#ifndef BASE_PRINTABLE_H
#define BASE_PRINTABLE_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace ProcMgr {

// How much of one value a log line shows, in bytes of the value.
inline constexpr std::size_t kShownValueBytes = 80;
// The same for a path: the longest one that the kernel takes.
inline constexpr std::size_t kShownPathBytes = 4096;

// What stands at the end of a text that was cut.
inline constexpr std::string_view kCutOff = "...";

// Writes every byte of the first `size` in `buffer` that isn't printable ASCII as "\xNN", in place.
// Yields the new size; what then has no room in the buffer is cut off with "...", which has to fit.
// Needs no memory.
[[nodiscard]] std::size_t MakePrintable(std::span<char> buffer, std::size_t size);

// `text` with every byte that isn't printable ASCII written as "\xNN", cut with "..." after `limit`
// bytes. The log does the same with its lines, so this is for what goes elsewhere, or for the
// limit.
[[nodiscard]] std::string Printable(std::string_view text, std::size_t limit = kShownValueBytes);

// The same in double quotes.
[[nodiscard]] std::string Quoted(std::string_view text);

}  // namespace ProcMgr

#endif  // BASE_PRINTABLE_H
