// The log lines of code that runs in the test itself.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <syslog.h>

#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "core/log.h"

namespace PmTest {

// Takes every log line from its construction to its end; one at a time. Any thread may log.
class LogCapture {
 public:
  LogCapture() {
    Take();
    ProcMgr::SetLogSink(&Add);
  }
  ~LogCapture() { ProcMgr::SetLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines since the last call, in order: "E " or another first letter of the level, and the
  // text.
  std::vector<std::string> Take() {
    Taken& taken = All();
    const ProcMgr::MutexLock lock(taken.mutex);
    return std::exchange(taken.lines, {});
  }

 private:
  struct Taken {
    ProcMgr::Mutex mutex;
    std::vector<std::string> lines GUARDED_BY(mutex);
  };

  static void Add(int level, const char* text) {
    const char letter = level == LOG_ERR       ? 'E'
                        : level == LOG_WARNING ? 'W'
                        : level == LOG_INFO    ? 'I'
                                               : 'D';
    Taken& taken = All();
    const ProcMgr::MutexLock lock(taken.mutex);
    taken.lines.push_back(std::string(1, letter) + ' ' + text);
  }

  static Taken& All() {
    static Taken taken;
    return taken;
  }
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_LOG_CAPTURE_H
