// Fails system calls of a program in a sandbox, and of the children that it forks until their exec:
// one at a time, when and as the test says, with an errno that the kernel might give. Otherwise a
// program doesn't notice the injector, but for each watched call taking longer.
//
//   FaultInjector injector({SYS_openat, SYS_umask});
//   Process program(sandbox, path, {}, {{}, "program", &FaultInjector::Trap});
//   injector.Arm({SYS_openat, FaultInjector::Where::kProgram, 3, EMFILE});
//   injector.Attach(program.Pid(), path, SYS_umask);
//
// One injector per process at a time. It must outlive what it watches, which after its end gets
// ENOSYS from each call that it watched.
#ifndef SANDBOX_FAULT_INJECTOR_H
#define SANDBOX_FAULT_INJECTOR_H

#include <linux/filter.h>
#include <sys/types.h>

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"

namespace PmSandbox {

class FaultInjector {
 public:
  // Who makes a call: the program's own threads, or a child of it that hasn't become another
  // program yet.
  enum class Where { kProgram, kChild };
  struct Fault {
    int call = 0;  // Its number, SYS_...
    Where where = Where::kProgram;
    int nth = 1;  // Counted from the arming; 0: all from then on.
    int error = 0;
  };

  // `calls` are the numbers of those that it watches.
  explicit FaultInjector(const std::vector<int>& calls);
  ~FaultInjector();
  FaultInjector(const FaultInjector&) = delete;
  FaultInjector& operator=(const FaultInjector&) = delete;

  // Process::Options::before of the program. It waits there until it is attached.
  static void Trap();
  // Begins to watch the process, whose program is at `path` as the sandbox shows it, from its first
  // call of `begin` on, one of those that it watches: what comes before is the program loader's.
  void Attach(pid_t pid, std::string path, int begin);

  // Replaces the fault that was armed before.
  void Arm(const Fault& fault) EXCLUDES(mutex_);
  void Disarm() EXCLUDES(mutex_);
  // How many calls the fault that was armed last has failed.
  [[nodiscard]] int Struck() const EXCLUDES(mutex_);
  // How many times a call was made since the attaching.
  [[nodiscard]] int Count(int call, Where where) const EXCLUDES(mutex_);

 private:
  // What the program and the test share until the attaching.
  struct Handover {
    std::atomic<int> listener;  // In the program; 0 until it is there, negative if it can't be.
    std::atomic<bool> isTaken;
  };

  void Serve();
  // The errno that the call gets, 0 for its own way.
  [[nodiscard]] int Decide(pid_t thread, int call) EXCLUDES(mutex_);
  [[nodiscard]] std::optional<Where> WhereIs(pid_t thread) const;

  static FaultInjector* current_;

  Handover* handover_ = nullptr;
  std::vector<sock_filter> filter_;
  pid_t pid_ = -1;
  std::string path_;
  int begin_ = 0;
  ProcMgr::UniqueFd listener_;
  ProcMgr::UniqueFd stop_;  // An eventfd, readable when the thread has to end.
  mutable ProcMgr::Mutex mutex_;
  bool begun_ GUARDED_BY(mutex_) = false;
  std::optional<Fault> fault_ GUARDED_BY(mutex_);
  int seen_ GUARDED_BY(mutex_) = 0;
  int struck_ GUARDED_BY(mutex_) = 0;
  std::map<std::pair<int, Where>, int> counts_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace PmSandbox

#endif  // SANDBOX_FAULT_INJECTOR_H
