// Paths of a platform whose root is a folder of this machine.
#ifndef TOOLS_CHECK_ROOT_PATH_H
#define TOOLS_CHECK_ROOT_PATH_H

#include <optional>
#include <string>

namespace ProcMgr::Check {

// Follows the links of `path`, an absolute path of the platform, as they count with `root` for "/":
// none leads out of it. Yields the path on this machine, or none if nothing is there. `root` is
// empty for this machine, else resolved and without a slash at its end.
[[nodiscard]] std::optional<std::string> ResolveInRoot(const std::string& root,
                                                       const std::string& path);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_ROOT_PATH_H
