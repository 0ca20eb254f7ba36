// Bounds-checked copies, with the results of C11 Annex K: 0 on success; otherwise non-zero, with
// the destination cleared as Annex K says. No constraint handler runs.
#ifndef PLATFORM_SECUREC_SECUREC_H
#define PLATFORM_SECUREC_SECUREC_H

#include <cstddef>

namespace ProcMgr {

[[nodiscard]] int memcpy_s(void* dest, std::size_t destMax, const void* source, std::size_t count);
[[nodiscard]] int memset_s(void* dest, std::size_t destMax, int value, std::size_t count);
[[nodiscard]] int strcpy_s(char* dest, std::size_t destMax, const char* source);

}  // namespace ProcMgr

#endif  // PLATFORM_SECUREC_SECUREC_H
