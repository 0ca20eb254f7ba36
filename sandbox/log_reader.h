// What a program of the sandbox logs, read as a syslog daemon reads it.
#ifndef SANDBOX_LOG_READER_H
#define SANDBOX_LOG_READER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "sandbox/sandbox.h"
#include "sandbox/wait.h"

namespace PmSandbox {

struct LogLine {
  int level = -1;     // 0 to 7, as syslog counts.
  int facility = -1;  // Its number: 1 for "user".
  std::string ident;
  pid_t pid = 0;
  std::string text;
  ProcMgr::SteadyTime at;  // When it was read.
};

// Hides in a text what differs between two runs: a boot trace becomes "[TRACE]" and the number
// behind "pid=", "pid:" or "tid=" becomes "#".
std::string Mask(const std::string& text);
// "LEVEL TEXT" with the text masked: a line in the form in which whole logs are compared.
std::string MaskLine(const LogLine& line);

// Serves the sandbox's /dev/log on a thread of its own and keeps every line in its order. A sender
// is never refused: one that finds the queue full waits until this thread has read on. One log
// reader per sandbox; make it before the program that logs. All operations from any thread.
class LogReader {
 public:
  // Decides about one line.
  using Predicate = std::function<bool(const LogLine&)>;

  explicit LogReader(const Sandbox& sandbox);
  ~LogReader();
  LogReader(const LogReader&) = delete;
  LogReader& operator=(const LogReader&) = delete;

  // From the one on nobody reads, and whoever logs meets a socket that fills up; the other reads
  // on.
  void Pause();
  void Resume();

  // Everything so far.
  [[nodiscard]] std::vector<LogLine> Lines() const EXCLUDES(mutex_);
  // The lines from `begin` up to `end`, as MaskLine gives them.
  [[nodiscard]] std::vector<std::string> Masked(std::size_t begin = 0, std::size_t end = kAll) const
      EXCLUDES(mutex_);
  // How many lines hold `part`.
  [[nodiscard]] std::size_t Count(std::string_view part) const EXCLUDES(mutex_);

  // Waits for a line at index `from` or later that holds `part`, or that the predicate accepts.
  // Yields its index; none if `patience` has passed first. To wait for the next such line, go on
  // from the index behind it.
  [[nodiscard]] std::optional<std::size_t> WaitFor(
      std::string_view part, std::size_t from = 0,
      std::chrono::milliseconds patience = kPatience) const EXCLUDES(mutex_);
  [[nodiscard]] std::optional<std::size_t> WaitFor(
      const Predicate& predicate, std::size_t from = 0,
      std::chrono::milliseconds patience = kPatience) const EXCLUDES(mutex_);
  // Waits until `count` lines hold `part`.
  [[nodiscard]] bool WaitForCount(std::string_view part, std::size_t count,
                                  std::chrono::milliseconds patience = kPatience) const
      EXCLUDES(mutex_);

  // The line at `index`, which must be there.
  [[nodiscard]] LogLine At(std::size_t index) const EXCLUDES(mutex_);

  // Drops all lines so far: indices and counts begin anew. For runs whose log would fill the
  // memory.
  void Forget() EXCLUDES(mutex_);

  // The whole log as text, for the message of a failed test.
  [[nodiscard]] std::string Text() const EXCLUDES(mutex_);

  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

 private:
  void ReadLoop() EXCLUDES(mutex_);

  ProcMgr::UniqueFd socket_;
  ProcMgr::UniqueFd end_;                // Connected to the socket, whatever becomes of its file.
  std::atomic<bool> isPausing_ = false;  // The next empty datagram ends the thread.
  mutable ProcMgr::Mutex mutex_;
  mutable ProcMgr::CondVar changed_;
  std::vector<LogLine> lines_ GUARDED_BY(mutex_);
  std::thread thread_;
};

// The lines in the sandbox's /dev/kmsg: level, the pid of the prefix and the text. They carry no
// newline, so the prefix of the next one ends a line.
std::vector<LogLine> KernelLog(const Sandbox& sandbox);
// Waits for one that holds `part`.
[[nodiscard]] bool WaitForKernelLog(const Sandbox& sandbox, std::string_view part,
                                    std::chrono::milliseconds patience = kPatience);

}  // namespace PmSandbox

#endif  // SANDBOX_LOG_READER_H
