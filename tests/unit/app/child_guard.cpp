// Takes the place of what no child in the manager's memory may call, and ends one that does. Every
// launch of this program passes through it. Not for sanitizer builds, which replace the same.
#include <dlfcn.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <sys/syscall.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/children.h"

namespace {

constexpr int kCaught = 77;

// A forked child has these to itself: its memory is its own, and libc has put its locks right.
bool isForked = false;
pid_t ownPid = 0;

__attribute__((constructor)) void Begin() {
  ownPid = getpid();
  (void)pthread_atfork(nullptr, nullptr, [] { isForked = true; });
}

void ForbidInChild(const char* name) {
  if (ownPid == 0 || isForked || syscall(SYS_getpid) == ownPid) {
    return;
  }
  (void)syscall(SYS_write, STDERR_FILENO, name, std::strlen(name));
  (void)syscall(SYS_write, STDERR_FILENO, " in a child\n", 12);
  (void)syscall(SYS_exit_group, kCaught);
}

// The function that this program's own one hides.
template <typename Function>
Function* Hidden(Function*& known, const char* name) {
  if (known == nullptr) {
    known = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  }
  return known;
}

}  // namespace

// The headers' names for the parameters are libc's own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name,bugprone-macro-parentheses)
#define PM_GUARDED(result, name, parameters, arguments)        \
  result name parameters {                                     \
    static result(*hidden) parameters = nullptr;               \
    ForbidInChild(#name);                                      \
    return Hidden<result parameters>(hidden, #name) arguments; \
  }

extern "C" {

// dlsym itself allocates, so these are reached under libc's own names.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);

void* malloc(size_t size) {
  ForbidInChild("malloc");
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  ForbidInChild("calloc");
  return __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  ForbidInChild("realloc");
  return __libc_realloc(memory, size);
}
void free(void* memory) {
  ForbidInChild("free");
  __libc_free(memory);
}

PM_GUARDED(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
PM_GUARDED(passwd*, getpwuid, (uid_t uid), (uid))
PM_GUARDED(int, getgrouplist, (const char* user, gid_t group, gid_t* groups, int* count),
           (user, group, groups, count))
PM_GUARDED(int, setenv, (const char* name, const char* value, int overwrite),
           (name, value, overwrite))
PM_GUARDED(FILE*, fopen, (const char* path, const char* mode), (path, mode))
PM_GUARDED(void, vsyslog, (int priority, const char* format, va_list args),
           (priority, format, args))

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name,bugprone-macro-parentheses)

namespace {

TEST(ChildGuard, EndsAChildThatAllocates) {
  std::vector<char> stack(std::size_t{64} << 10);
  const auto allocate = [](void*) -> int {
    std::free(std::malloc(1));
    _exit(0);
  };
  const pid_t child =
      clone(allocate, stack.data() + stack.size(), CLONE_VM | CLONE_VFORK | SIGCHLD, nullptr);
  ASSERT_GT(child, 0);
  EXPECT_EQ(PmTest::Reap(child), kCaught << 8);
}

}  // namespace
