// System calls made raw, for a child between its start and its exec.
//
// Such a child may run in the manager's own memory, beside its other threads. libc's wrappers
// aren't made for that: some spread over all threads (setuid), some keep books that the manager
// would find changed (sigaction, and much more under the sanitizers, which wrap nearly all of
// them). What is left of libc here is errno, which belongs to the thread that waits for the child
// meanwhile.
#ifndef BASE_RAW_CALLS_H
#define BASE_RAW_CALLS_H

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace ProcMgr {

// Yields the call's result, or the negative errno of its failure.
template <typename... Arguments>
[[nodiscard]] long RawCall(long number, Arguments... arguments) {
  const long result = syscall(number, arguments...);
  return result == -1 ? -errno : result;
}

[[nodiscard]] inline bool RawExists(const char* path) {
  return RawCall(SYS_faccessat, AT_FDCWD, path, F_OK) == 0;
}

// Appends `size` bytes to the existing file at `path` with one write. Yields 0 or an errno.
[[nodiscard]] inline int RawAppend(const char* path, const char* bytes, std::size_t size) {
  const long file = RawCall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file < 0) {
    return static_cast<int>(-file);
  }
  const long written = RawCall(SYS_write, file, bytes, size);
  (void)RawCall(SYS_close, file);
  return written < 0 ? static_cast<int>(-written) : 0;
}

}  // namespace ProcMgr

#endif  // BASE_RAW_CALLS_H
