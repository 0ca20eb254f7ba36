#include "core/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <span>
#include <string_view>

#include "base/immortal.h"
#include "base/line_queue.h"
#include "base/mutex.h"
#include "base/names.h"
#include "base/printable.h"
#include "base/unique_fd.h"
#include "core/host_context.h"

namespace ProcMgr {
namespace {

constexpr const char* kKernelLog = "/dev/kmsg";
// The longest record that every kernel takes from user space; a longer one is refused whole, so the
// end of a long line is cut off rather than the line lost.
constexpr std::size_t kKernelRecord = 976;
// How long the end of the process waits for a reader of the log.
constexpr std::chrono::milliseconds kLastPatience{200};
// A line and its NUL.
constexpr std::size_t kLineBytes = LineRing::kMaxTextBytes + 1;

// The sink of a tool or a test; null in the daemon. Called under the lock, read without it.
Mutex sinkMutex;
std::atomic<LogSink> logSink = nullptr;

// syslog waits while the reader's socket is full, and others wait for syslog's own lock meanwhile.
class SyslogWriter : public LineWriter {
 public:
  void Write(int level, const char* text) override { syslog(level, "%s", text); }
  void TellLost(std::uint64_t count) override {
    syslog(LOG_WARNING, "PROCMGR : %llu lines of the log are lost, its reader was too slow",
           static_cast<unsigned long long>(count));
  }
};

struct SyslogQueue {
  SyslogWriter writer;
  LineQueue lines{writer};
};

// The way to syslog; null until OpenLog, from when on nobody else calls syslog. Never destroyed:
// its thread may stand in a write while the process ends.
std::atomic<LineQueue*> syslogQueue = nullptr;

// How many LogBatches of the thread live.
thread_local int logBatches = 0;

// Makes the line in `buffer`, kLineBytes long, and ends it with a NUL. Needs no memory. What a peer
// or a file has put in there can neither break the line nor reach a terminal.
__attribute__((format(printf, 2, 0))) std::string_view MakeLine(std::span<char> buffer,
                                                                const char* format, va_list args) {
  const std::span<char> text = buffer.first(buffer.size() - 1);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  std::size_t size = static_cast<std::size_t>(std::max(length, 0));
  if (size > text.size()) {
    size = text.size();
    std::copy(kCutOff.begin(), kCutOff.end(), text.last(kCutOff.size()).begin());
  }
  size = MakePrintable(text, size);
  buffer[size] = '\0';
  return {buffer.data(), size};
}

// Yields false if there is no sink.
bool ToSink(int level, std::string_view line) {
  if (logSink.load() == nullptr) {
    return false;
  }
  const MutexLock lock(sinkMutex);
  if (const LogSink current = logSink.load()) {
    current(level, line.data());
  }
  return true;
}

__attribute__((format(printf, 2, 0))) void ToSyslog(int level, const char* format, va_list args) {
  char buffer[kLineBytes];
  const std::string_view line = MakeLine(buffer, format, args);
  if (ToSink(level, line)) {
    return;
  }
  if (LineQueue* const queue = syslogQueue.load()) {
    const bool mayWait = logBatches > 0 && level >= LOG_INFO;
    queue->Push(level, line, mayWait ? LineQueue::Urgency::kTogether : LineQueue::Urgency::kNow);
  } else {
    syslog(level, "%s", line.data());
  }
}

bool IsCharacterDevice(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
}

// One line costs one open, one write and one close: lines of several threads don't mix, and nothing
// stays open. Without the device the line is lost; it must not be made as a file, which would fill
// the memory behind /dev, so nothing here creates it.
void WriteKernelRecord(int level, std::string_view line) {
  const UniqueFd device(open(kKernelLog, O_RDWR | O_APPEND | O_CLOEXEC | O_NOCTTY));
  if (!device.IsOpen()) {
    return;
  }
  std::array<char, kKernelRecord> record{};
  const int length = std::snprintf(record.data(), record.size(), "<%d> PROCMGR[%d] %s", level,
                                   HostContext::Instance().pid_, line.data());
  std::size_t size = std::min(static_cast<std::size_t>(std::max(length, 0)), record.size() - 1);
  if (IsCharacterDevice(device.Get())) {
    // The kernel shows a record without a line break only when the next one comes.
    record[size++] = '\n';
  }
  // A log that can't be written has nobody to be told to.
  [[maybe_unused]] const ssize_t ignored = write(device.Get(), record.data(), size);
}

__attribute__((format(printf, 2, 0))) void ToKernelLog(int level, const char* format,
                                                       va_list args) {
  char buffer[kLineBytes];
  const std::string_view line = MakeLine(buffer, format, args);
  if (!ToSink(level, line)) {
    WriteKernelRecord(level, line);
  }
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
  // At once, so that the descriptors of the boot have the same numbers in every run.
  openlog(kManagerName, LOG_PID | LOG_NDELAY, LOG_USER);
  try {
    LineQueue& queue = Immortal<SyslogQueue>().lines;
    queue.Start();
    syslogQueue = &queue;
  } catch (const std::exception& failure) {
    // A log that may hold up its callers is better than none.
    LogError("PROCMGR : the log has no thread of its own: %s", failure.what());
  }
}

void CloseLog() {
  LineQueue* const queue = syslogQueue.load();
  if (queue == nullptr || queue->End(kLastPatience)) {
    closelog();
  }
}

LogBatch::LogBatch() {
  ++logBatches;
}

LogBatch::~LogBatch() {
  LineQueue* const queue = syslogQueue.load();
  if (--logBatches == 0 && queue != nullptr) {
    queue->Flush();
  }
}

void SetLogSink(LogSink sink) {
  // Under the lock, so that nobody is in the old sink any more when this returns.
  const MutexLock lock(sinkMutex);
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
