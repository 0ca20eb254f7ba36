#include "core/log.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/immortal.h"
#include "base/names.h"
#include "base/unique_fd.h"
#include "core/host_context.h"

namespace ProcMgr {
namespace {

constexpr const char* kKernelLog = "/dev/kmsg";
// The longest record that every kernel takes from user space; a longer one is refused whole, so the
// end of a long line is cut off rather than the line lost.
constexpr std::size_t kKernelRecord = 976;

// The sink of a tool or a test; null in the daemon. Called under the log's lock, read without it:
// the kernel log must not wait for a syslog daemon that is slow.
std::atomic<LogSink> logSink = nullptr;

// Yields false, with `args` unused, if there is no sink.
__attribute__((format(printf, 2, 0))) bool ToSink(int level, const char* format, va_list args) {
  if (logSink.load() == nullptr) {
    return false;
  }
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  if (length >= 0) {
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), format, again);
    const MutexLock lock(LogLock());
    if (const LogSink current = logSink.load()) {
      current(level, text.c_str());
    }
  }
  va_end(again);
  return true;
}

__attribute__((format(printf, 2, 0))) void ToSyslog(int level, const char* format, va_list args) {
  if (ToSink(level, format, args)) {
    return;
  }
  const MutexLock lock(LogLock());
  vsyslog(level, format, args);
}

// One line costs one open, one write and one close: lines of several threads don't mix, and nothing
// stays open. Without the device the line is lost; it must not be made as a file, which would fill
// the memory behind /dev, so nothing here creates it.
__attribute__((format(printf, 2, 0))) void ToKernelLog(int level, const char* format,
                                                       va_list args) {
  if (ToSink(level, format, args)) {
    return;
  }
  const UniqueFd device(open(kKernelLog, O_RDWR | O_APPEND | O_CLOEXEC | O_NOCTTY));
  if (!device.IsOpen()) {
    return;
  }
  std::array<char, kKernelRecord> line{};
  const auto prefix = static_cast<std::size_t>(std::snprintf(
      line.data(), line.size(), "<%d> PROCMGR[%d] ", level, HostContext::Instance().pid_));
  if (std::vsnprintf(line.data() + prefix, line.size() - prefix, format, args) < 0) {
    return;
  }
  // A log that can't be written has nobody to be told to.
  [[maybe_unused]] const ssize_t ignored =
      write(device.Get(), line.data(), std::strlen(line.data()));
}

__attribute__((format(printf, 2, 0))) void Route(int level, const char* format, va_list args) {
  if (HostContext::Instance().isQuickStart_.load()) {
    ToKernelLog(level, format, args);
  } else {
    ToSyslog(level, format, args);
  }
}

}  // namespace

Mutex& LogLock() {
  // Threads may still log while the process exits.
  return Immortal<Mutex>();
}

void OpenLog() {
  const MutexLock lock(LogLock());
  openlog(kManagerName, LOG_PID, LOG_USER);
}

void CloseLog() {
  const MutexLock lock(LogLock());
  closelog();
}

void SetLogSink(LogSink sink) {
  // Under the lock, so that nobody is in the old sink any more when this returns.
  const MutexLock lock(LogLock());
  logSink = sink;
}

// The seven public functions differ in level and sink and in nothing else; a variable argument list
// can't be handed on without a body each.
#define PM_LOG_BODY(sink, level) \
  va_list args;                  \
  va_start(args, format);        \
  sink(level, format, args);     \
  va_end(args)

void LogError(const char* format, ...) {
  PM_LOG_BODY(ToSyslog, LOG_ERR);
}
void LogWarning(const char* format, ...) {
  PM_LOG_BODY(ToSyslog, LOG_WARNING);
}
void LogInfo(const char* format, ...) {
  PM_LOG_BODY(ToSyslog, LOG_INFO);
}
void LogDebug(const char* format, ...) {
  PM_LOG_BODY(ToSyslog, LOG_DEBUG);
}
void LogErrorRouted(const char* format, ...) {
  PM_LOG_BODY(Route, LOG_ERR);
}
void LogWarningRouted(const char* format, ...) {
  PM_LOG_BODY(Route, LOG_WARNING);
}
void LogInfoRouted(const char* format, ...) {
  PM_LOG_BODY(Route, LOG_INFO);
}

#undef PM_LOG_BODY

}  // namespace ProcMgr
