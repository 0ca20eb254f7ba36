#include "app/spawn.h"

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>

#include "app/child_steps.h"
#include "base/block_signals.h"

// glibc's clone under its other name. Under the plain one ThreadSanitizer takes every child for a
// forked one, with books of its own to begin.
extern "C" int __clone(int (*begin)(void*), void* stackTop, int flags, void* argument, ...);

namespace ProcMgr::App {
namespace {

// A child's stack: the memory is fetched as far as the child gets, a page or two. To map one anew
// for each child would cost a fifth of what the start costs.
class ChildStack {
 public:
  ChildStack()
      : memory_(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0)) {
    if (memory_ != MAP_FAILED && mprotect(memory_, kGuardBytes, PROT_NONE) != 0) {
      const int error = errno;
      Unmap();
      errno = error;
    }
  }
  ~ChildStack() { Unmap(); }
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;

  // Null, with errno, if there is none.
  [[nodiscard]] void* Top() const {
    return memory_ == MAP_FAILED ? nullptr : static_cast<std::byte*>(memory_) + kBytes;
  }

 private:
  static constexpr std::size_t kBytes = std::size_t{256} << 10;
  // The largest page that a kernel for the target has.
  static constexpr std::size_t kGuardBytes = std::size_t{64} << 10;

  void Unmap() {
    if (memory_ != MAP_FAILED) {
      (void)munmap(memory_, kBytes);
      memory_ = MAP_FAILED;
    }
  }

  void* memory_;
};

PM_NEVER_LEFT int Begin(void* plan) {
  RunChild(*static_cast<const LaunchPlan*>(plan));
}

[[nodiscard]] pid_t SpawnInSharedMemory(const LaunchPlan& plan) {
  // A thread waits until its child has left the stack, so it has one at most.
  thread_local std::optional<ChildStack> stack;
  if (!stack.has_value()) {
    stack.emplace();
  }
  if (stack->Top() == nullptr) {
    const int error = errno;
    stack.reset();  // The next start may find memory.
    return -error;
  }
  const pid_t child = __clone(&Begin, stack->Top(), CLONE_VM | CLONE_VFORK | SIGCHLD,
                              const_cast<LaunchPlan*>(&plan));
  return child < 0 ? -errno : child;
}

[[nodiscard]] pid_t SpawnInOwnMemory(const LaunchPlan& plan) {
  const pid_t child = fork();
  if (child == 0) {
    RunChild(plan);
  }
  return child < 0 ? -errno : child;
}

}  // namespace

pid_t Spawn(const LaunchPlan& plan) {
  const BlockSignals all;
  return plan.needsOwnMemory ? SpawnInOwnMemory(plan) : SpawnInSharedMemory(plan);
}

}  // namespace ProcMgr::App
