// The environment that a program is going to get, as a value.
#ifndef BASE_ENVIRONMENT_H
#define BASE_ENVIRONMENT_H

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr {

// Begins as a copy of the calling process's environment, whose texts must stay in place for as long
// as this lives. Changes it as setenv with `overwrite` would, entry by entry and in the same order.
class Environment {
 public:
  Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // Yields 0, or EINVAL for a name that is empty or holds a "=".
  [[nodiscard]] int Set(std::string_view name, std::string_view value);

  // For execve: null-terminated; valid until the next change.
  [[nodiscard]] char* const* Pointers() const { return pointers_.data(); }

 private:
  std::deque<std::string> texts_;  // Its entries never move.
  std::vector<char*> pointers_;
};

}  // namespace ProcMgr

#endif  // BASE_ENVIRONMENT_H
