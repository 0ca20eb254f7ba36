// Paths of a platform whose root is a folder of this machine.
#ifndef BASE_ROOT_PATH_H
#define BASE_ROOT_PATH_H

#include <optional>
#include <string>

namespace ProcMgr {

// Follows the links of `path`, an absolute path of the platform, as they count with `root` for "/":
// none leads out of it. Yields the path on this machine, or none if nothing is there. `root` is
// empty for this machine, else resolved and without a slash at its end.
[[nodiscard]] std::optional<std::string> ResolveInRoot(const std::string& root,
                                                       const std::string& path);

// Whether the path on this machine lies below `root`, links aside; nothing does below an empty one.
[[nodiscard]] inline bool IsBelow(const std::string& root, const std::string& path) {
  return !root.empty() && path.starts_with(root + '/');
}

}  // namespace ProcMgr

#endif  // BASE_ROOT_PATH_H
