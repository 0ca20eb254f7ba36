#include "core/log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "core/fork_locks.h"
#include "core/host_context.h"
#include "core/mutex.h"

namespace ProcMgr {
namespace {

constexpr const char* kKernelLog = "/dev/kmsg";

// The sink of a tool or a test; null in the daemon.
LogSink& Sink() REQUIRES(LogLock()) {
  static LogSink sink = nullptr;
  return sink;
}

// False if there is no sink.
__attribute__((format(printf, 2, 0))) bool WriteToSink(int level, const char* format, va_list args)
    REQUIRES(LogLock()) {
  if (Sink() == nullptr) {
    return false;
  }
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  if (length >= 0) {
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), format, again);
    Sink()(level, text.c_str());
  }
  va_end(again);
  return true;
}

__attribute__((format(printf, 2, 0))) void ToSyslog(int level, const char* format, va_list args) {
  const MutexLock lock(LogLock());
  if (WriteToSink(level, format, args)) {
    return;
  }
  vsyslog(level, format, args);
}

// One line costs one open and one close. The whole line reaches the device in one write, so lines
// of several threads don't mix.
__attribute__((format(printf, 2, 0))) void ToKernelLog(int level, const char* format,
                                                       va_list args) {
  {
    const MutexLock lock(LogLock());
    if (WriteToSink(level, format, args)) {
      return;
    }
  }
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(kKernelLog, "a+e"),
                                                               &std::fclose);
  if (stream == nullptr) {
    return;
  }
  char text[2048];
  if (std::vsnprintf(text, sizeof(text), format, args) < 0) {
    return;
  }
  (void)std::fprintf(stream.get(), "<%d> PROCMGR[%d] %s", level, HostContext::Instance().pid_,
                     text);
}

__attribute__((format(printf, 2, 0))) void Route(int level, const char* format, va_list args) {
  if (HostContext::Instance().isQuickStart_.load()) {
    ToKernelLog(level, format, args);
  } else {
    ToSyslog(level, format, args);
  }
}

}  // namespace

void OpenLog() {
  const MutexLock lock(LogLock());
  openlog("PROCMGR", LOG_PID, LOG_USER);
}

void CloseLog() {
  const MutexLock lock(LogLock());
  closelog();
}

void SetLogSink(LogSink sink) {
  const MutexLock lock(LogLock());
  Sink() = sink;
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
