// A system that lacks something, for the calling thread and whatever comes of it. What is forbidden
// stays so. May be called between fork and exec.
#ifndef TESTS_SUPPORT_FORBIDDEN_CALLS_H
#define TESTS_SUPPORT_FORBIDDEN_CALLS_H

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace PmTest {

template <unsigned short kCount>
void Install(sock_filter (&filter)[kCount]) {
  const sock_fprog program{kCount, filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(126);
  }
}

// Every clone that makes a thread, or every one that makes a process, fails with EAGAIN.
inline void ForbidClones(bool ofThreads) {
  const auto forbidden = static_cast<unsigned char>(ofThreads ? 0 : 1);
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, forbidden,
               static_cast<unsigned char>(1 - forbidden)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  Install(filter);
}
inline void ForbidThreads() {
  ForbidClones(true);
}
inline void ForbidProcesses() {
  ForbidClones(false);
}

}  // namespace PmTest

#endif  // TESTS_SUPPORT_FORBIDDEN_CALLS_H
