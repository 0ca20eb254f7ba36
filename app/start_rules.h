// The rules by which a start is refused that need nothing but what they are given: for the start
// itself, and for tools that tell beforehand.
#ifndef APP_START_RULES_H
#define APP_START_RULES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string_view>

namespace ProcMgr::App {

// The first token of a shell in `text`; none if there isn't any. Nothing is passed through a
// shell; an argument that looks as if somebody tried is refused.
[[nodiscard]] std::optional<std::string_view> FindShellToken(std::string_view text);

enum class ExecuteVerdict {
  kOk,
  kNobodyMay,    // For root: no execute bit at all.
  kOwnerMayNot,  // The user owns the file, whose bit for the owner is missing.
  kNotInGroup,   // The user neither owns the file nor is in its group.
  kGroupMayNot,
};

// Whether the group is one of the user's.
using GroupTest = std::function<bool(uid_t uid, gid_t gid)>;

// Judges the execute permission by mode, owner and group of the file. The bit for others alone is
// good enough for root only. Calls `isInGroup` only if the answer depends on it.
[[nodiscard]] ExecuteVerdict JudgeExecute(uid_t uid, const struct stat& file,
                                          const GroupTest& isInGroup);

}  // namespace ProcMgr::App

#endif  // APP_START_RULES_H
