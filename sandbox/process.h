// A program that runs in a sandbox, and what a test asks about it.
#ifndef SANDBOX_PROCESS_H
#define SANDBOX_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/process_table.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"

namespace PmSandbox {

// Starts its program with standard input from /dev/null, both outputs in one file of the sandbox,
// no other descriptor, an empty signal mask, default dispositions and an environment that holds
// PATH, the sanitizers' options and what is given. The program dies with the thread that started
// it, so make it on a thread that outlives it.
class Process {
 public:
  struct Options {
    std::map<std::string, std::string> environment;
    // A name that tells this program's output file from another's.
    std::string name = "program";
    // Called in the forked child as its last act before the exec; only async-signal-safe calls.
    void (*before)() = nullptr;
  };

  // `path` is looked up inside. A program that can't be started ends with 127 and a line in its
  // output.
  Process(const Sandbox& sandbox, const std::string& path,
          const std::vector<std::string>& arguments, const Options& options);
  // Kills the program; what it started lives on until the sandbox ends (or Sandbox::KillAll).
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t Pid() const { return pid_; }
  [[nodiscard]] bool IsRunning();

  void Signal(int signal) const;

  // Waits for its end and yields the raw wait status, which IsRunning and later calls know too;
  // none if `patience` has passed first.
  [[nodiscard]] std::optional<int> WaitExit(std::chrono::milliseconds patience = kPatience);

  // All that it and its children have printed.
  [[nodiscard]] std::string Output() const;
  // The part of the output in which a sanitizer reports; empty if there is none.
  [[nodiscard]] std::string SanitizerReport() const;

 private:
  void Reap(bool wait);

  const Sandbox& sandbox_;
  std::string outputPath_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace PmSandbox

#endif  // SANDBOX_PROCESS_H
