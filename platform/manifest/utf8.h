// Which bytes may stand in a YAML file.
#ifndef PLATFORM_MANIFEST_UTF8_H
#define PLATFORM_MANIFEST_UTF8_H

#include <cstddef>
#include <optional>
#include <string_view>

namespace ProcMgr::Manifest {

// The offset of the first byte of `text` that is no part of well-formed UTF-8, or that is a control
// character other than tab, line feed and carriage return; none if there is no such byte.
[[nodiscard]] std::optional<std::size_t> FindBadByte(std::string_view text);

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_UTF8_H
