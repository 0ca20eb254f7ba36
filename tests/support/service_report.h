// What a test-service said about itself with --report.
#ifndef TESTS_SUPPORT_SERVICE_REPORT_H
#define TESTS_SUPPORT_SERVICE_REPORT_H

#include <sys/types.h>

#include <map>
#include <string>

#include "sandbox/sandbox.h"

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

class ServiceReport {
 public:
  ServiceReport() = default;
  explicit ServiceReport(const std::string& text);

  // The value of a key ("uids", "env.HOME", "status.Cpus_allowed_list"); "(none)" if it isn't
  // there.
  [[nodiscard]] std::string Get(const std::string& key) const;
  [[nodiscard]] bool Has(const std::string& key) const { return values_.contains(key); }
  // All keys that start with `prefix`, without it, and their values.
  [[nodiscard]] std::map<std::string, std::string> Below(const std::string& prefix) const;
  [[nodiscard]] pid_t Pid() const;

 private:
  std::map<std::string, std::string> values_;
};

// Waits for the report in the sandbox's file `inside` that a process other than `previous` wrote,
// so that after a restart the new one is read. Throws if none comes.
ServiceReport AwaitReport(const Sandbox& sandbox, const std::string& inside, pid_t previous = 0);

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SERVICE_REPORT_H
