// A command that is a base service without knowing it.
//
// Run serves the service's name, starts the command, and sits in one loop, on the calling thread,
// until the command has ended. What wakes the loop:
//   signals     those that ask something of a service go on to the command; SIGCHLD tells of ends;
//   notices     what the command says (tools/notify/notify_socket.h);
//   channelUp_  the agent's callback, on its thread: a report may have waited for the channel;
//   time        the pause between two readiness checks, or before a failed report is tried again.
#ifndef TOOLS_NOTIFY_NOTIFIED_SERVICE_H
#define TOOLS_NOTIFY_NOTIFIED_SERVICE_H

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/process_manager_agent.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "tools/notify/child.h"
#include "tools/notify/notify_socket.h"

namespace Notify {

inline constexpr int kCantServe = 1;
inline constexpr int kUsage = 2;
inline constexpr int kNotExecutable = 126;
inline constexpr int kNotFound = 127;

// Between two runs of the command that tells whether the service is ready.
inline constexpr std::chrono::milliseconds kCheckPause{200};

enum class ReadyBy {
  kNotice,  // The command says READY=1.
  kNow,     // As soon as the command runs.
  kCheck,   // As soon as another command succeeds.
};

struct Wish {
  std::string name;  // The service's.
  ReadyBy readyBy = ReadyBy::kNotice;
  std::string readyWhen;  // For kCheck: a line for the shell.
  bool beat = false;      // Beats as long as the command is there.
  std::vector<std::string> command;
};

// For one run; the process's main thread.
class NotifiedService {
 public:
  explicit NotifiedService(Wish wish);
  ~NotifiedService();
  NotifiedService(const NotifiedService&) = delete;
  NotifiedService& operator=(const NotifiedService&) = delete;

  // Yields 0 when the command has run and ended; one of the exit statuses above, with a line on
  // standard error, if it couldn't be run. Blocks the signals that it waits for, for good.
  [[nodiscard]] int Run();
  // The command's wait status, after a Run that yielded 0.
  [[nodiscard]] int CommandStatus() const { return ended_.value_or(0); }

 private:
  [[nodiscard]] int Serve();
  [[nodiscard]] int StartCommand();
  void Loop();
  void AwaitEvent();

  void TakeSignals();
  void Reap();
  void TakeNotices();

  void StartCheck();
  void EndCheck();

  void SetState(ProcMgr::ServiceState state);
  void ReportIfDue();
  // Milliseconds until the next thing to do by time; -1: nothing.
  [[nodiscard]] int WaitMs() const;

  const Wish wish_;
  sigset_t signalsBefore_{};
  ProcMgr::UniqueFd signals_;
  ProcMgr::UniqueFd channelUp_;
  NotifySocket notices_;
  std::unique_ptr<ProcMgr::Agent> agent_;

  pid_t command_ = -1;
  std::optional<int> ended_;
  pid_t check_ = -1;
  std::optional<ProcMgr::SteadyTime> nextCheck_;

  std::optional<ProcMgr::ServiceState> state_;
  bool isReportDue_ = false;
};

}  // namespace Notify

#endif  // TOOLS_NOTIFY_NOTIFIED_SERVICE_H
