#include "tests/support/captured_log.h"

#include <syslog.h>

#include <utility>

#include "core/log.h"
#include "core/mutex.h"

namespace ProcMgr::Test {
namespace {

Mutex mutex;
std::vector<std::string> lines GUARDED_BY(mutex);

const char* Word(int level) {
  switch (level) {
    case LOG_ERR:
      return "error ";
    case LOG_WARNING:
      return "warning ";
    case LOG_INFO:
      return "info ";
    case LOG_DEBUG:
      return "debug ";
    default:
      return "unknown level ";
  }
}

void Catch(int level, const char* text) {
  const MutexLock lock(mutex);
  lines.push_back(std::string(Word(level)) + text);
}

// Before main, so that no line of the program is missed.
const bool installed = [] {
  SetLogSink(&Catch);
  return true;
}();

}  // namespace

std::vector<std::string> TakeLog() {
  const MutexLock lock(mutex);
  return std::exchange(lines, {});
}

}  // namespace ProcMgr::Test
