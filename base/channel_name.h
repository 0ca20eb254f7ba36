// Names under which a service can be reached.
#ifndef BASE_CHANNEL_NAME_H
#define BASE_CHANNEL_NAME_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace ProcMgr {

inline constexpr std::size_t kMaxChannelName = 64;

// 1 to 64 bytes of A-Z a-z 0-9 . _ -, no leading dot: such a name is a file's name in the directory
// of the channels and can't leave it.
[[nodiscard]] inline bool IsChannelName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxChannelName && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
         });
}

}  // namespace ProcMgr

#endif  // BASE_CHANNEL_NAME_H
