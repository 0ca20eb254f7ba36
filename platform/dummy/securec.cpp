#include "platform/securec/securec.h"

#include <cerrno>
#include <cstring>

namespace ProcMgr {

// Callers rely on what these write, so that here even a dummy has work to do.
int memset_s(void* dest, std::size_t destMax, int value, std::size_t count) {
  if (dest == nullptr || count > destMax) {
    return ERANGE;
  }
  std::memset(dest, value, count);
  return 0;
}

int memcpy_s(void* dest, std::size_t destMax, const void* source, std::size_t count) {
  if (dest == nullptr) {
    return EINVAL;
  }
  if (source == nullptr || count > destMax) {
    std::memset(dest, 0, destMax);
    return ERANGE;
  }
  std::memcpy(dest, source, count);
  return 0;
}

int strcpy_s(char* dest, std::size_t destMax, const char* source) {
  if (source == nullptr || dest == nullptr || destMax == 0) {
    return EINVAL;
  }
  const std::size_t length = strnlen(source, destMax);
  if (length == destMax) {
    dest[0] = '\0';
    return ERANGE;
  }
  return memcpy_s(dest, destMax, source, length + 1);
}

}  // namespace ProcMgr
