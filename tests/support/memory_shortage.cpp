#include "tests/support/memory_shortage.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool (*)()> starved = nullptr;

bool IsStarved() {
  bool (*const ask)() = starved.load();
  return ask != nullptr && ask();
}

}  // namespace

// Not inlined, or the compiler takes the pairs below for mismatched ones.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = IsStarved() ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

void PmTest::Starve(bool (*isStarved)()) {
  starved = isStarved;
}
