#include "sandbox/fault_injector.h"

#include <linux/seccomp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "base/pid_fd.h"
#include "base/shared_page.h"
#include "base/text.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"
#include "sandbox/wait.h"

namespace PmSandbox {
namespace {

// Each call of the list is told to the listener; all others go their way.
std::vector<sock_filter> FilterOf(const std::vector<int>& calls) {
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const int call : calls) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return filter;
}

// The descriptor `fd` of another process, as one of our own.
ProcMgr::UniqueFd TakeFrom(pid_t pid, int fd) {
  const ProcMgr::UniqueFd process = ProcMgr::OpenPidFd(pid);
  return ProcMgr::UniqueFd(static_cast<int>(syscall(SYS_pidfd_getfd, process.Get(), fd, 0)));
}

}  // namespace

FaultInjector* FaultInjector::current_ = nullptr;

FaultInjector::FaultInjector(const std::vector<int>& calls)
    : handover_(ProcMgr::MakeShared<Handover>()),
      filter_(FilterOf(calls)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
  CheckStep(handover_ != nullptr && stop_.IsOpen(), "make a fault injector");
  current_ = this;
}

FaultInjector::~FaultInjector() {
  if (thread_.joinable()) {
    (void)eventfd_write(stop_.Get(), 1);
    thread_.join();
  }
  current_ = nullptr;
  (void)munmap(handover_, sizeof(Handover));
}

void FaultInjector::Trap() {
  const sock_fprog program{static_cast<unsigned short>(current_->filter_.size()),
                           current_->filter_.data()};
  const long listener =
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
  current_->handover_->listener = listener > 0 ? static_cast<int>(listener) : -1;
  // Without a system call: this process may already not be able to make any by itself.
  while (listener > 0 && !current_->handover_->isTaken) {
  }
}

void FaultInjector::Attach(pid_t pid, std::string path, int begin) {
  begin_ = begin;
  pid_ = pid;
  path_ = std::move(path);
  CheckStep(Eventually([this] { return handover_->listener != 0; }) && handover_->listener > 0,
            "watch a program's system calls");
  listener_ = TakeFrom(pid, handover_->listener);
  CheckStep(listener_.IsOpen(), "take the listener of a program's system calls");
  thread_ = std::thread([this] { Serve(); });
  handover_->isTaken = true;
}

void FaultInjector::Arm(const Fault& fault) {
  const ProcMgr::MutexLock lock(mutex_);
  fault_ = fault;
  seen_ = 0;
  struck_ = 0;
}

void FaultInjector::Disarm() {
  const ProcMgr::MutexLock lock(mutex_);
  fault_.reset();
}

int FaultInjector::Struck() const {
  const ProcMgr::MutexLock lock(mutex_);
  return struck_;
}

int FaultInjector::Count(int call, Where where) const {
  const ProcMgr::MutexLock lock(mutex_);
  const auto found = counts_.find({call, where});
  return found == counts_.end() ? 0 : found->second;
}

void FaultInjector::Serve() {
  for (;;) {
    std::array<pollfd, 2> ready = {{{listener_.Get(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}}};
    if (poll(ready.data(), ready.size(), -1) < 0) {
      continue;
    }
    if (ready[1].revents != 0 || (ready[0].revents & POLLIN) == 0) {
      return;  // Of the watched ones none is left.
    }
    seccomp_notif call{};
    if (ioctl(listener_.Get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
      continue;  // Whoever made it has been killed, or a signal came to it.
    }
    const int error = Decide(static_cast<pid_t>(call.pid), call.data.nr);
    seccomp_notif_resp answer{};
    answer.id = call.id;
    answer.error = -error;
    answer.flags = error == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
    (void)ioctl(listener_.Get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
}

int FaultInjector::Decide(pid_t thread, int call) {
  const std::optional<Where> where = WhereIs(thread);
  if (!where.has_value()) {
    return 0;
  }
  const ProcMgr::MutexLock lock(mutex_);
  begun_ = begun_ || call == begin_;
  if (!begun_) {
    return 0;
  }
  ++counts_[{call, *where}];
  if (!fault_.has_value() || fault_->call != call || fault_->where != *where) {
    return 0;
  }
  ++seen_;
  if (fault_->nth != 0 && fault_->nth != seen_) {
    return 0;
  }
  ++struck_;
  return fault_->error;
}

std::optional<FaultInjector::Where> FaultInjector::WhereIs(pid_t thread) const {
  std::array<char, 512> program{};
  const std::string link = "/proc/" + std::to_string(thread) + "/exe";
  if (readlink(link.c_str(), program.data(), program.size() - 1) < 0 || path_ != program.data()) {
    return std::nullopt;
  }
  return StatusField(thread, "Tgid") == std::to_string(pid_) ? Where::kProgram : Where::kChild;
}

}  // namespace PmSandbox
