#include "tests/unit/host/captured_log.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "base/mutex.h"
#include "core/log.h"

namespace ProcMgr {
namespace Testing {
namespace {

Mutex linesMutex;
std::vector<std::string> lines GUARDED_BY(linesMutex);

__attribute__((format(printf, 2, 0))) void Keep(const char* level, const char* format,
                                                va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length < 0 ? 0 : length), '\0');
  (void)std::vsnprintf(text.data(), text.size() + 1, format, args);
  const MutexLock lock(linesMutex);
  lines.push_back(level + text);
}

}  // namespace

std::vector<std::string> TakeLog() {
  const MutexLock lock(linesMutex);
  return std::exchange(lines, {});
}

}  // namespace Testing

void OpenLog() {}
void CloseLog() {}

#define PM_LOG_OPERATION(Name, level)   \
  void Name(const char* format, ...) {  \
    va_list args;                       \
    va_start(args, format);             \
    Testing::Keep(level, format, args); \
    va_end(args);                       \
  }

PM_LOG_OPERATION(LogError, "E ")
PM_LOG_OPERATION(LogWarning, "W ")
PM_LOG_OPERATION(LogInfo, "I ")
PM_LOG_OPERATION(LogDebug, "D ")
PM_LOG_OPERATION(LogErrorRouted, "RE ")
PM_LOG_OPERATION(LogWarningRouted, "RW ")
PM_LOG_OPERATION(LogInfoRouted, "RI ")

#undef PM_LOG_OPERATION

}  // namespace ProcMgr
