#include "app/spawn.h"

#include <linux/sched.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

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

  static constexpr std::size_t kBytes = std::size_t{256} << 10;

  // Null, with errno, if there is none.
  [[nodiscard]] void* Bottom() const { return memory_ == MAP_FAILED ? nullptr : memory_; }
  [[nodiscard]] void* Top() const { return static_cast<std::byte*>(memory_) + kBytes; }

 private:
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

PM_NEVER_LEFT int BeginWithoutHandlers(void* plan) {
  RunChild(*static_cast<const LaunchPlan*>(plan), Handlers::kGone);
}

PM_NEVER_LEFT int BeginWithHandlers(void* plan) {
  RunChild(*static_cast<const LaunchPlan*>(plan), Handlers::kInherited);
}

// Has the kernel start the child without the handlers of the manager, for which it would otherwise
// make 64 system calls. libc has no function for it that starts the child on a stack of its own.
// Yields the pid or a negative errno.
[[nodiscard]] long CloneWithoutHandlers(ChildStack& stack, const LaunchPlan& plan) {
  clone_args arguments{};
  arguments.flags = CLONE_VM | CLONE_VFORK | CLONE_CLEAR_SIGHAND;
  arguments.exit_signal = SIGCHLD;
  arguments.stack = reinterpret_cast<std::uintptr_t>(stack.Bottom());
  arguments.stack_size = ChildStack::kBytes;
#if defined(__x86_64__)
  register auto begin asm("r12") = &BeginWithoutHandlers;
  register const LaunchPlan* argument asm("r13") = &plan;
  long result = SYS_clone3;
  asm volatile(
      "syscall\n\t"
      "test %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "xor %%ebp, %%ebp\n\t"
      "mov %%r13, %%rdi\n\t"
      "call *%%r12\n\t"
      "hlt\n"
      "1:"
      : "+a"(result)
      : "D"(&arguments), "S"(sizeof(arguments)), "r"(begin), "r"(argument)
      : "rcx", "r11", "cc", "memory");
  return result;
#elif defined(__aarch64__)
  register auto begin asm("x19") = &BeginWithoutHandlers;
  register const LaunchPlan* argument asm("x20") = &plan;
  register long call asm("x8") = SYS_clone3;
  register long result asm("x0") = reinterpret_cast<long>(&arguments);
  register long size asm("x1") = sizeof(arguments);
  asm volatile(
      "svc #0\n\t"
      "cbnz x0, 1f\n\t"
      "mov x29, #0\n\t"
      "mov x30, #0\n\t"
      "mov x0, x20\n\t"
      "blr x19\n\t"
      "brk #0\n"
      "1:"
      : "+r"(result)
      : "r"(size), "r"(call), "r"(begin), "r"(argument)
      : "cc", "memory");
  return result;
#else
  return -ENOSYS;
#endif
}

// Kernels before 5.3 don't know the call, those before 5.5 its flag; some containers forbid it.
[[nodiscard]] bool IsCallMissing(long result) {
  return result == -ENOSYS || result == -EINVAL || result == -EPERM;
}

[[nodiscard]] pid_t SpawnInSharedMemory(const LaunchPlan& plan) {
  // A thread waits until its child has left the stack, so it has one at most.
  thread_local std::optional<ChildStack> stack;
  if (!stack.has_value()) {
    stack.emplace();
  }
  if (stack->Bottom() == nullptr) {
    const int error = errno;
    stack.reset();  // The next start may find memory.
    return -error;
  }
  if (const long child = CloneWithoutHandlers(*stack, plan); !IsCallMissing(child)) {
    return static_cast<pid_t>(child);
  }
  const pid_t child = __clone(&BeginWithHandlers, stack->Top(), CLONE_VM | CLONE_VFORK | SIGCHLD,
                              const_cast<LaunchPlan*>(&plan));
  return child < 0 ? -errno : child;
}

[[nodiscard]] pid_t SpawnInOwnMemory(const LaunchPlan& plan) {
  const pid_t child = fork();
  if (child == 0) {
    RunChild(plan, Handlers::kInherited);
  }
  return child < 0 ? -errno : child;
}

// The kernel gives children and new threads the usual policy and niceness back, so a thread that
// has others, given by whoever started the manager, keeps them. So does one without the right.
void RunAheadOfChildren() {
  constexpr int kAhead = -10;
  const sched_param none{};
  if (sched_getscheduler(0) == SCHED_OTHER && getpriority(PRIO_PROCESS, 0) == 0 &&
      sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &none) == 0) {
    (void)setpriority(PRIO_PROCESS, 0, kAhead);
  }
}

}  // namespace

pid_t Spawn(const LaunchPlan& plan) {
  thread_local bool isAhead = false;
  if (!std::exchange(isAhead, true)) {
    RunAheadOfChildren();
  }
  const BlockSignals all;
  return plan.needsOwnMemory ? SpawnInOwnMemory(plan) : SpawnInSharedMemory(plan);
}

}  // namespace ProcMgr::App
