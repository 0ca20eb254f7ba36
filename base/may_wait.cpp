#include "base/may_wait.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <type_traits>

#include "core/log.h"

namespace ProcMgr {
namespace {

struct Lock {
  const Mutex* mutex = nullptr;
  const char* name = nullptr;
};

// Written while there is one thread, and only read from then on.
std::array<Lock, 8> locks;
std::size_t lockCount = 0;

// glibc notes in each mutex who holds it. So the locks themselves need no account of it, which
// every build would pay for; with another C library nothing is checked.
bool IsHeldByCaller([[maybe_unused]] const Mutex& mutex) {
#if defined(__GLIBC__)
  // Its own mutex stands first in it.
  static_assert(std::is_standard_layout_v<Mutex> && sizeof(Mutex) >= sizeof(pthread_mutex_t));
  const auto& raw = reinterpret_cast<const pthread_mutex_t&>(mutex);
  return __atomic_load_n(&raw.__data.__owner, __ATOMIC_RELAXED) == gettid();
#else
  return false;
#endif
}

}  // namespace

void NeverWaitUnder(const Mutex& lock, const char* name) {
  locks.at(lockCount) = {&lock, name};
  ++lockCount;
}

void MayWait([[maybe_unused]] const char* call) {
#if !defined(NDEBUG)
  const char* const held = HeldWhileWaiting();
  if (held != nullptr) {
    LogError("PROCMGR : %s would wait under %s", call, held);
    CloseLog();  // Or the line would end with the process, in the queue.
  }
  assert(held == nullptr);
#endif
}

const char* HeldWhileWaiting() {
  for (std::size_t i = 0; i < lockCount; ++i) {
    if (IsHeldByCaller(*locks[i].mutex)) {
      return locks[i].name;
    }
  }
  return nullptr;
}

}  // namespace ProcMgr
