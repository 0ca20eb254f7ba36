// What a child says that ends before it has become its program, kept for whoever files its exit.
//
// The message pipe (base/child_msg_pipe.h) carries the same words to the log, some time later and
// mixed with others'. These are there when the child's end is seen, and they alone tell such an end
// from one of the program itself. They lie in memory that children share with the manager until
// their exec.
#ifndef BASE_LAST_WORDS_H
#define BASE_LAST_WORDS_H

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ProcMgr {

// The words of so many children are kept at a time, and of each so many bytes.
inline constexpr std::size_t kKeptLastWords = 64;
inline constexpr std::size_t kLongestLastWords = 1000;

// For the child, just before it ends: takes no lock and makes no call. The words of one whose exit
// has long waited to be filed give way.
void KeepLastWords(pid_t pid, std::string_view text);

// The words of the child with that pid, which has ended; none if it left none. They are gone then.
// Any thread of the manager.
[[nodiscard]] std::optional<std::string> TakeLastWords(pid_t pid);

}  // namespace ProcMgr

#endif  // BASE_LAST_WORDS_H
