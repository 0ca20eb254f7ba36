#include "tests/unit/host/captured_log.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "core/log.h"
#include "core/mutex.h"

namespace ProcMgr {
namespace Testing {
namespace {

Mutex linesMutex;
std::vector<LogLine> lines GUARDED_BY(linesMutex);

__attribute__((format(printf, 3, 0))) void Keep(int level, bool isRouted, const char* format,
                                                va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length < 0 ? 0 : length), '\0');
  (void)std::vsnprintf(text.data(), text.size() + 1, format, args);
  const MutexLock lock(linesMutex);
  lines.push_back({level, isRouted, std::move(text)});
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << (line.isRouted ? "routed " : "plain ") << line.level << ": " << line.text;
}

std::vector<LogLine> TakeLog() {
  const MutexLock lock(linesMutex);
  return std::exchange(lines, {});
}

}  // namespace Testing

void OpenLog() {}
void CloseLog() {}

#define PM_KEEP_BODY(level, isRouted)           \
  va_list args;                                 \
  va_start(args, format);                       \
  Testing::Keep(level, isRouted, format, args); \
  va_end(args)

void LogError(const char* format, ...) {
  PM_KEEP_BODY(LOG_ERR, false);
}
void LogWarning(const char* format, ...) {
  PM_KEEP_BODY(LOG_WARNING, false);
}
void LogInfo(const char* format, ...) {
  PM_KEEP_BODY(LOG_INFO, false);
}
void LogDebug(const char* format, ...) {
  PM_KEEP_BODY(LOG_DEBUG, false);
}
void LogErrorRouted(const char* format, ...) {
  PM_KEEP_BODY(LOG_ERR, true);
}
void LogWarningRouted(const char* format, ...) {
  PM_KEEP_BODY(LOG_WARNING, true);
}
void LogInfoRouted(const char* format, ...) {
  PM_KEEP_BODY(LOG_INFO, true);
}

#undef PM_KEEP_BODY

}  // namespace ProcMgr
