// Reading a small file whole or any file line by line, and appending an id to a tasks file.
#ifndef BASE_SMALL_FILE_H
#define BASE_SMALL_FILE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ProcMgr {

// What no configuration file of the manager may exceed, in bytes.
inline constexpr std::size_t kConfigFileLimit = std::size_t{1} << 20;

// Reads the file at `path` into `out`, at most `limit` bytes of it. Yields 0, or the errno of the
// failure (EFBIG for a file that has more, EISDIR for a directory) with `out` untouched. Files of
// /proc, which tell no size, are read like any other. Never follows a fifo into a wait.
[[nodiscard]] int ReadSmallFile(const std::string& path, std::size_t limit, std::string& out);

// Takes a line without its newline, cut off behind `longest` bytes, and its whole length in bytes.
// False ends the reading.
using LineTaker = std::function<bool(std::string_view line, std::size_t length)>;

// Gives `take` the lines of the file at `path`, however large it is, in their order; a last line
// without a newline counts. Holds one line at a time. Yields 0, or the errno of the failure, before
// which some lines may have been given. Never follows a fifo into a wait.
[[nodiscard]] int ReadLines(const std::string& path, std::size_t longest, const LineTaker& take);

// Appends the decimal `id` and a newline to the existing file at `path` with one write. Yields 0 or
// the errno of the failure. Any thread, and a child before its exec.
[[nodiscard]] int AppendId(const char* path, std::int64_t id);

}  // namespace ProcMgr

#endif  // BASE_SMALL_FILE_H
