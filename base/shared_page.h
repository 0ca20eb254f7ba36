// Memory that children share with the manager, forked or not.
#ifndef BASE_SHARED_PAGE_H
#define BASE_SHARED_PAGE_H

#include <sys/mman.h>

#include <type_traits>

namespace ProcMgr {

// A T of zeros, made before the first child, which lives as long as the process does; all of it
// atomics, or guarded by some. Null if there is no memory. It costs nothing until it is written to.
template <typename T>
[[nodiscard]] T* MakeShared() noexcept {
  static_assert(std::is_trivially_destructible_v<T>, "nobody destroys it");
  void* const pages =
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : static_cast<T*>(pages);
}

}  // namespace ProcMgr

#endif  // BASE_SHARED_PAGE_H
