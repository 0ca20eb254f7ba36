// Paths in their resolved form.
#ifndef BASE_STANDARD_PATH_H
#define BASE_STANDARD_PATH_H

#include <string>

namespace ProcMgr {

// Resolves `input` with realpath into `output`. Yields false, with `output` untouched, if `input`
// has 4097 bytes or more, holds a zero byte or doesn't resolve. The two may be one string.
[[nodiscard]] bool StandardizationPath(const std::string& input, std::string& output);

}  // namespace ProcMgr

#endif  // BASE_STANDARD_PATH_H
