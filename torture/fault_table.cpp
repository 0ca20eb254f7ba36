#include "torture/fault_table.h"

#include <sys/syscall.h>

#include <cerrno>

namespace PmTorture {
namespace {

#define PM_CALL(name) SYS_##name, #name

const std::vector<FaultyCall> kOfFiles = {
    {PM_CALL(openat), {EINTR, EMFILE, ENFILE, ENOMEM, EACCES, EIO}},
    {PM_CALL(read), {EINTR, EIO}},
    {PM_CALL(write), {EINTR, EIO, ENOSPC}},
    {PM_CALL(pread64), {EINTR, EIO}},
    {PM_CALL(lseek), {EIO}},
    {PM_CALL(fcntl), {EINTR, EMFILE}},
    {PM_CALL(fstat), {ENOMEM}},
    {PM_CALL(newfstatat), {ENOMEM, EACCES}},
    {PM_CALL(statx), {ENOMEM, EACCES}},
    {PM_CALL(getdents64), {ENOMEM, EIO}},
    {PM_CALL(readlinkat), {ENOMEM, EIO, EACCES}},
    {PM_CALL(faccessat), {EIO, ENOMEM}},
    {PM_CALL(mkdirat), {EIO, ENOSPC, EACCES}},
    {PM_CALL(unlinkat), {EIO, EBUSY, EACCES}},
    {PM_CALL(renameat), {EIO, ENOSPC}},
    {PM_CALL(fchmod), {EIO, EPERM}},
    {PM_CALL(fchmodat), {EIO, EPERM}},
    {PM_CALL(fchown), {EIO, EPERM}},
    {PM_CALL(fchownat), {EIO, EPERM}},
    {PM_CALL(ftruncate), {EIO, EINTR}},
    {PM_CALL(setxattr), {ENOTSUP, ENOSPC}},
    {PM_CALL(chdir), {EIO, EACCES}},
    {PM_CALL(ioctl), {EIO}},
};

const std::vector<FaultyCall> kOfSocketsAndWaiting = {
    {PM_CALL(socket), {EMFILE, ENFILE, ENOBUFS}},
    {PM_CALL(socketpair), {EMFILE, ENFILE}},
    {PM_CALL(bind), {ENOMEM, EACCES}},
    {PM_CALL(listen), {ENOMEM}},
    {PM_CALL(connect), {EINTR, EAGAIN, ECONNREFUSED}},
    {PM_CALL(accept4), {EINTR, EMFILE, ECONNABORTED}},
    {PM_CALL(sendto), {EINTR, ENOBUFS, ENOMEM}},
    {PM_CALL(sendmsg), {EINTR, ENOBUFS, ENOMEM}},
    {PM_CALL(recvfrom), {EINTR, ENOMEM}},
    {PM_CALL(recvmsg), {EINTR, ENOMEM}},
    {PM_CALL(setsockopt), {ENOMEM}},
    {PM_CALL(getsockopt), {ENOMEM}},
    {PM_CALL(epoll_create1), {EMFILE, ENOMEM}},
    {PM_CALL(epoll_pwait), {EINTR}},
    {PM_CALL(ppoll), {EINTR, ENOMEM}},
    {PM_CALL(eventfd2), {EMFILE, ENOMEM}},
    {PM_CALL(timerfd_create), {EMFILE, ENOMEM}},
    {PM_CALL(inotify_init1), {EMFILE, ENOMEM}},
    {PM_CALL(inotify_add_watch), {ENOSPC, ENOMEM}},
    {PM_CALL(pipe2), {EMFILE, ENFILE}},
    {PM_CALL(clock_nanosleep), {EINTR}},
    {PM_CALL(rt_sigtimedwait), {EINTR}},
    {PM_CALL(rt_sigprocmask), {EINVAL}},
    {PM_CALL(rt_sigaction), {EINVAL}},
    {PM_CALL(setitimer), {EINVAL}},
};

const std::vector<FaultyCall> kOfProcessesAndMemory = {
    {PM_CALL(clone), {EAGAIN, ENOMEM}},
    {PM_CALL(clone3), {EAGAIN, ENOMEM}},
    {PM_CALL(execve), {ENOMEM, EACCES, EIO, E2BIG, ETXTBSY}},
    {PM_CALL(waitid), {EINTR}},
    {PM_CALL(wait4), {EINTR}},
    {PM_CALL(kill), {EPERM}},
    {PM_CALL(pidfd_open), {EMFILE, ENOMEM}},
    {PM_CALL(pidfd_send_signal), {EPERM}},
    {PM_CALL(mmap), {ENOMEM}},
    {PM_CALL(mprotect), {ENOMEM}},
    {PM_CALL(madvise), {ENOMEM}},
    {PM_CALL(setuid), {EAGAIN, EPERM}},
    {PM_CALL(setgid), {EPERM}},
    {PM_CALL(setgroups), {ENOMEM, EPERM}},
    {PM_CALL(setpriority), {EACCES}},
    {PM_CALL(getpriority), {ESRCH}},
    {PM_CALL(prctl), {EPERM, EINVAL}},
    {PM_CALL(prlimit64), {EPERM}},
    {PM_CALL(sched_setaffinity), {EPERM, EINVAL}},
    {PM_CALL(sched_getaffinity), {EINVAL}},
    {PM_CALL(sched_setscheduler), {EPERM}},
    {PM_CALL(sched_getscheduler), {ESRCH}},
    {PM_CALL(close_range), {ENOMEM, EMFILE}},
};

// That newer machines haven't got.
const std::vector<FaultyCall> kOld = {
#ifdef __x86_64__
    {PM_CALL(access), {EIO, ENOMEM}},
    {PM_CALL(mkdir), {EIO, ENOSPC, EACCES}},
    {PM_CALL(unlink), {EIO, EBUSY, EACCES}},
    {PM_CALL(rmdir), {EIO, EBUSY}},
    {PM_CALL(rename), {EIO, ENOSPC}},
    {PM_CALL(chmod), {EIO, EPERM}},
    {PM_CALL(chown), {EIO, EPERM}},
    {PM_CALL(lchown), {EIO, EPERM}},
    {PM_CALL(readlink), {ENOMEM, EIO, EACCES}},
    {PM_CALL(epoll_wait), {EINTR}},
    {PM_CALL(poll), {EINTR, ENOMEM}},
    {PM_CALL(vfork), {EAGAIN, ENOMEM}},
#endif
};

#undef PM_CALL

}  // namespace

const std::vector<FaultyCall>& FaultyCalls() {
  static const std::vector<FaultyCall> all = [] {
    std::vector<FaultyCall> calls;
    for (const auto* const part :
         {&kOfFiles, &kOfSocketsAndWaiting, &kOfProcessesAndMemory, &kOld}) {
      calls.insert(calls.end(), part->begin(), part->end());
    }
    return calls;
  }();
  return all;
}

const std::vector<int>& SureCalls() {
  static const std::vector<int> calls = {
      // Yield what there is to know, or do what the arguments, which are constant, ask for.
      SYS_getpid,
      SYS_gettid,
      SYS_getppid,
      SYS_getuid,
      SYS_geteuid,
      SYS_getgid,
      SYS_getegid,
      SYS_getrandom,
      SYS_uname,
      SYS_sysinfo,
      SYS_umask,
      SYS_sigaltstack,
      SYS_set_robust_list,
      SYS_rseq,
      SYS_set_tid_address,
      SYS_getrusage,
      SYS_clock_gettime,
      SYS_sched_yield,
      SYS_getgroups,
      SYS_getsockname,
      SYS_getpeername,
      SYS_timerfd_settime,
      SYS_statfs,
      SYS_fstatfs,
      SYS_tgkill,
      SYS_fadvise64,
      // Put a descriptor into a set, or take it out.
      SYS_epoll_ctl,
      SYS_inotify_rm_watch,
      // Fails without an errno; what comes of that, the failing allocations show.
      SYS_brk,
      // Free.
      SYS_close,
      SYS_munmap,
      SYS_shutdown,
#ifdef __x86_64__
      SYS_arch_prctl,
#endif
  };
  return calls;
}

}  // namespace PmTorture
