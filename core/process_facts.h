// What the kernel says of a process that the manager didn't start.
#ifndef CORE_PROCESS_FACTS_H
#define CORE_PROCESS_FACTS_H

#include <sys/types.h>

#include <array>
#include <string>

namespace ProcMgr {

// Real, effective, saved and file system id each.
struct ProcessIds {
  std::array<uid_t, 4> uids{};
  std::array<gid_t, 4> gids{};
};

// False, with `out` untouched, if there is no such process; a thread's number is none.
[[nodiscard]] bool ReadProcessIds(pid_t pid, ProcessIds& out);

// The path of its program, also if that has been replaced since; empty for a kernel thread, or if
// there is no such process.
[[nodiscard]] std::string ProgramOf(pid_t pid);

}  // namespace ProcMgr

#endif  // CORE_PROCESS_FACTS_H
