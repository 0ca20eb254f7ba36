// A look at a YAML text before it is parsed.
#ifndef PLATFORM_MANIFEST_NESTING_H
#define PLATFORM_MANIFEST_NESTING_H

#include <cstddef>
#include <optional>
#include <string_view>

namespace ProcMgr::Manifest {

// The offset at which the collections of `text` get so deep that it must not be given to yaml-cpp,
// whose scanner takes some 250 bytes for each level before it tells of the first: more than 1024
// open brackets, or a line that begins with more than 64 indicators of a block ("- - - "). None for
// every text that people write: brackets and indicators within scalars count too, for only a parser
// could tell them apart, but no sensible scalar holds so many. One pass, no memory.
[[nodiscard]] std::optional<std::size_t> FindDeepNesting(std::string_view text);

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_NESTING_H
