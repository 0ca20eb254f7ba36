// Starting a command as a child that doesn't outlive this process.
#ifndef TOOLS_NOTIFY_CHILD_H
#define TOOLS_NOTIFY_CHILD_H

#include <sys/types.h>

#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Notify {

struct ChildPlan {
  std::vector<std::string> command;  // The program, looked up along PATH, and its arguments.
  // Entries set, or with none taken away, in what is otherwise this process's environment.
  std::map<std::string, std::optional<std::string>> environment;
  sigset_t signals{};  // The mask that it starts with.
  // Leads a process group of its own, so that it can be ended with all that it has started.
  bool ownGroup = false;
};

// Starts the command and yields its pid, once its program runs; or a negative errno, with no child
// left. The kernel kills it when the calling thread ends: call it on the main thread.
[[nodiscard]] pid_t StartChild(const ChildPlan& plan);

// Ends this process as the child did whose wait status is `status`: with the same exit status, or
// by the same signal, without a core file of its own. Yields the exit status, or 128 and the number
// of a signal that doesn't end this process.
[[nodiscard]] int EndLike(int status);

}  // namespace Notify

#endif  // TOOLS_NOTIFY_CHILD_H
