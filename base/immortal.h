// Process-wide objects that are never destroyed.
#ifndef BASE_IMMORTAL_H
#define BASE_IMMORTAL_H

#include <cstddef>
#include <memory>

namespace ProcMgr {

// Yields the one T, made at the first call. Threads of a library still use it while the process
// runs its exit handlers, so it has no destructor call; its storage is static and no leak.
template <typename T>
T& Immortal() {
  alignas(T) static std::byte storage[sizeof(T)];
  static T* const object = std::construct_at(reinterpret_cast<T*>(storage));
  return *object;
}

}  // namespace ProcMgr

#endif  // BASE_IMMORTAL_H
