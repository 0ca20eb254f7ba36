#include "torture/shortage.h"

#include <cstdlib>
#include <new>

#include "torture/preload.h"

namespace {

PmTorture::Shortage* Shared() {
  static PmTorture::Shortage* const shared =
      PmTorture::OpenShared<PmTorture::Shortage>(PmTorture::kShortageVariable);
  return shared;
}

bool Strikes() {
  PmTorture::Shortage* const shared = Shared();
  if (shared == nullptr) {
    return false;
  }
  const std::int64_t number = ++shared->count;
  const std::int64_t first = shared->first;
  if (first == 0 || number < first || number > shared->last) {
    return false;
  }
  ++shared->struck;
  return true;
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = Strikes() ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Strikes() ? nullptr : std::malloc(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
