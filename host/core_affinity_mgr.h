// Binding processes and threads to cores.
//
// The platform divides its cores in two sets, published as cpuset files: the control cores, where
// ordinary work runs, and the AI cores. This class reads the sets, turns lists of core numbers into
// kernel masks, and remembers the bindings of single threads so that they can be restored after the
// system has woken up.
//
// The core lists are filled on the boot thread before anybody reads them, and never change again;
// they take no lock. The thread table has the one lock of the class.
#ifndef HOST_CORE_AFFINITY_MGR_H
#define HOST_CORE_AFFINITY_MGR_H

#include <sched.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/fixed_text.h"
#include "base/mutex.h"

namespace ProcMgr {

// The results of the binding operations.
inline constexpr std::uint32_t kCoreAffinityOk = 0;
inline constexpr std::uint32_t kThreadNameUnreadable = 0xf10600;
inline constexpr std::uint32_t kNoCtrlCpus = 0xf10601;
inline constexpr std::uint32_t kCoreMaskRefused = 0xf10602;

// The number of cores that the system is configured with, offline ones too. Core numbers from here
// up are taken for absent.
extern const std::uint32_t cpuCount;

// What a thread was bound to.
struct ThreadCoreInfo {
  pid_t pid = -1;
  std::vector<std::uint32_t> cores;
  std::array<char, 16> name{};  // When it was bound; zero-terminated.
};

// An application to be bound again; an empty list stands for the control cores.
struct AppCoreInfo {
  std::uint32_t pid = 0;
  std::vector<std::uint32_t> cores;
};

// A binding that has been worked out and needs nothing but system calls to be made.
struct CoreBinding {
  bool hasCores = false;  // False: there are no cores to bind to, and nothing else counts.
  cpu_set_t mask{};
  std::uint32_t aiCores = 0;  // How many of its cores are AI cores, each of which asks for an entry
                              // in the AI cpuset.
  bool hasAiTasks = false;    // Whether that set has a tasks file.
};

// Where the platform publishes its sets.
struct CpusetPaths {
  std::string ctrlCpus = "/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus";
  std::string aiCpus = "/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus";
  std::string aiTasks = "/sys/fs/cgroup/cpuset/AICPU/tasks";
};

// Appends the cores of one line of a cpuset file to `cores`: either numbers between commas, of
// which the first 129 count, or, as soon as the line holds a "-", its ranges and nothing else.
// A range reaches at most to core 1023. `path` is for the log.
void ParseCpuLine(const std::string& path, std::string_view line,
                  std::vector<std::uint32_t>& cores);

// The same for the first line of the file at `path`; a file that can't be read has none.
void ParseCpuFile(const std::string& path, std::vector<std::uint32_t>& cores);

class CoreAffinityMgr {
 public:
  static CoreAffinityMgr& Instance();

  explicit CoreAffinityMgr(CpusetPaths paths = {});

  // Reads each of the two sets that is still empty. Boot thread.
  void LoadCpuInfo();

  // Adds the thread ids of the process to `tids`. False if it has no thread list (any more). Any
  // thread.
  static bool GetTids(pid_t pid, std::set<std::uint32_t>& tids);

  // Copies the thread's name, at most `size` - 1 bytes and a zero, to `name`. False if it can't be
  // read, with errno telling why. Any thread.
  [[nodiscard]] static bool GetThreadName(pid_t pid, std::uint32_t tid, char* name,
                                          std::size_t size);

  // True if `info` still speaks of this thread: same process, same name. Thread ids are reused.
  [[nodiscard]] static bool CheckTidIsValid(pid_t pid, std::uint32_t tid,
                                            const ThreadCoreInfo& info);

  // Binds the process or thread `id` to `cores`, or to the control cores if the list is empty, and
  // enters it in the AI cpuset for every AI core of the list. Absent cores are passed over. Yields
  // kCoreAffinityOk, kNoCtrlCpus or kCoreMaskRefused, with the reason appended to `err`. Any
  // thread.
  std::uint32_t SetCoreAffinityToOs(pid_t id, const std::vector<std::uint32_t>& cores,
                                    std::string& err) const;

  // The two steps of it, and the lines about AI cores without their cpuset that belong to it. The
  // second step is for a child before its exec too.
  [[nodiscard]] CoreBinding PlanBinding(const std::vector<std::uint32_t>& cores) const;
  std::uint32_t Bind(pid_t id, const CoreBinding& binding, ErrText& err) const;
  void LogMissingAiTasks(pid_t id, const CoreBinding& binding) const;

  // Remembers and binds one thread. The record stays even if the binding fails, so that a recovery
  // tries again. Yields a code as above, or kThreadNameUnreadable. Any thread. The daemon never
  // calls it: it is for a platform that places single threads of its applications.
  std::uint32_t StoreAndSetCoreAffinity(pid_t pid, std::uint32_t tid,
                                        const std::vector<std::uint32_t>& cores)
      EXCLUDES(threadCoreInfoMutex_);

  // Binds every thread of the applications again: to its remembered cores, or to those of its
  // application. Always true; failures are logged. Runs after a wake-up.
  bool RecoverCoreAffinity(const std::vector<AppCoreInfo>& apps) EXCLUDES(threadCoreInfoMutex_);

  // Forgets the first remembered thread of an ended application; CheckThreadCoreInfos finds the
  // others. Any thread.
  void RecycleThreadCoreInfo(pid_t pid, const std::string& appName) EXCLUDES(threadCoreInfoMutex_);

  // Forgets remembered threads that are gone. With nothing remembered, it makes no system call.
  // Check thread.
  void CheckThreadCoreInfos() EXCLUDES(threadCoreInfoMutex_);

  // True if every core is a control core. Logs the first that isn't. Any thread.
  [[nodiscard]] bool CheckIsCtrlCpu(const std::string& appName,
                                    const std::vector<std::uint32_t>& cores) const;

  // True if the core is present and an AI core. Any thread.
  [[nodiscard]] bool IsAiCpu(std::uint32_t core) const;

  // Enters the process or thread in the AI cpuset, which is known to have a tasks file. Any thread,
  // and a child before its exec.
  void WriteTidToAIcpuSet(pid_t tid) const;

  // The control and AI cores, in file order.
  [[nodiscard]] const std::vector<std::uint32_t>& CtrlCpus() const { return ctrlCpus_; }
  [[nodiscard]] const std::vector<std::uint32_t>& AiCpus() const { return aiCpus_; }

 private:
  void RecoverThread(pid_t pid, std::uint32_t tid, const std::vector<std::uint32_t>& appCores)
      REQUIRES(threadCoreInfoMutex_);

  const CpusetPaths paths_;

  // Constant after the boot.
  std::vector<std::uint32_t> ctrlCpus_;
  std::vector<std::uint32_t> aiCpus_;

  // Taken last of the manager's own locks.
  Mutex threadCoreInfoMutex_;
  // By thread id.
  std::map<std::uint32_t, ThreadCoreInfo> threadCoreInfos_ GUARDED_BY(threadCoreInfoMutex_);
};

}  // namespace ProcMgr

#endif  // HOST_CORE_AFFINITY_MGR_H
