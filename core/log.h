// The one place from which log lines leave.
//
// A plain call writes to syslog under the ident "PROCMGR". A routed call (the ...Routed functions)
// belongs to a fixed set of boot call sites: during a quick start its line goes to the kernel log
// "/dev/kmsg" instead, or nowhere if that can't be opened. The level is fixed by the function's
// name: error 3, warning 4, information 6, debug 7. The text stands whole at its call site.
//
// Any thread may call. After OpenLog a line for syslog is only put into a queue
// (base/line_queue.h), whatever the state of the memory and of the reader, and one thread writes
// the queue to syslog. So a reader that doesn't read holds up nobody; what the queue has no room
// for meanwhile is lost, and a warning in its place says how many lines it was. Without OpenLog, as
// in an agent or a tool, the caller writes to syslog itself. Lines of the kernel log are written by
// their callers, always.
//
// Bytes that aren't printable ASCII appear as "\xNN" in every line, and a line is cut off with
// "..." behind 16 KiB: callers hand over names and texts of others as they are.
//
// A child never logs before its exec: nothing there empties the queue, and its lock may be held for
// ever.
#ifndef CORE_LOG_H
#define CORE_LOG_H

#define PM_PRINTF __attribute__((format(printf, 1, 2)))

namespace ProcMgr {

// Opens syslog with the ident "PROCMGR", LOG_PID and LOG_USER and starts the thread that writes to
// it.
void OpenLog();
// Writes what is left, for at most 200 ms, and closes syslog. The last act of a process that has
// opened it: lines that come later go nowhere until the next OpenLog. One thread at a time opens
// and closes.
void CloseLog();

// While one lives, what its thread logs for information waits in the queue to be written together:
// until 64 lines wait, a warning or an error comes, or another thread logs. For a thread that says
// the same of many: what it said last isn't in the log yet if it hangs.
class LogBatch {
 public:
  LogBatch();
  ~LogBatch();
  LogBatch(const LogBatch&) = delete;
  LogBatch& operator=(const LogBatch&) = delete;
};

// Takes a line without a line break, and its level as a syslog priority. Called one line at a time
// under the log's lock: it must not log itself.
using LogSink = void (*)(int level, const char* text);

// Sends every line, routed or not, to `sink` instead of the logs; null brings the logs back. For
// the operator's tools and for tests: the daemon never calls it.
void SetLogSink(LogSink sink);

PM_PRINTF void LogError(const char* format, ...);
PM_PRINTF void LogWarning(const char* format, ...);
PM_PRINTF void LogInfo(const char* format, ...);
PM_PRINTF void LogDebug(const char* format, ...);

PM_PRINTF void LogErrorRouted(const char* format, ...);
PM_PRINTF void LogWarningRouted(const char* format, ...);
PM_PRINTF void LogInfoRouted(const char* format, ...);

}  // namespace ProcMgr

#endif  // CORE_LOG_H
