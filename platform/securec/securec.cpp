#include "platform/securec/securec.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace ProcMgr {
namespace {

// RSIZE_MAX of Annex K: larger sizes are taken for a negative number gone wrong.
constexpr std::size_t kSizeMax = SIZE_MAX >> 1;

bool Overlaps(const void* left, std::size_t leftSize, const void* right, std::size_t rightSize) {
  const auto a = reinterpret_cast<std::uintptr_t>(left);
  const auto b = reinterpret_cast<std::uintptr_t>(right);
  return a < b ? b - a < leftSize : a - b < rightSize;
}

}  // namespace

int memcpy_s(void* dest, std::size_t destMax, const void* source, std::size_t count) {
  if (dest == nullptr || destMax > kSizeMax) {
    return EINVAL;
  }
  if (source == nullptr || count > destMax ||
      (count != 0 && Overlaps(dest, count, source, count))) {
    std::memset(dest, 0, destMax);
    return count > destMax ? ERANGE : EINVAL;
  }
  std::memcpy(dest, source, count);
  return 0;
}

int memset_s(void* dest, std::size_t destMax, int value, std::size_t count) {
  if (dest == nullptr || destMax > kSizeMax) {
    return EINVAL;
  }
  const std::size_t size = count < destMax ? count : destMax;
  // Through a volatile pointer: a wipe must not be optimised away.
  volatile unsigned char* const bytes = static_cast<unsigned char*>(dest);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<unsigned char>(value);
  }
  return count > destMax ? ERANGE : 0;
}

int strcpy_s(char* dest, std::size_t destMax, const char* source) {
  if (dest == nullptr || destMax == 0 || destMax > kSizeMax) {
    return EINVAL;
  }
  const std::size_t length = source == nullptr ? destMax : strnlen(source, destMax);
  if (length == destMax || Overlaps(dest, length + 1, source, length + 1)) {
    dest[0] = '\0';
    return source == nullptr ? EINVAL : ERANGE;
  }
  std::memcpy(dest, source, length + 1);
  return 0;
}

}  // namespace ProcMgr
