#include "tests/support/service_report.h"

#include <sstream>
#include <stdexcept>

#include "base/text.h"
#include "sandbox/wait.h"

namespace PmTest {

ServiceReport::ServiceReport(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      values_[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
}

std::string ServiceReport::Get(const std::string& key) const {
  const auto it = values_.find(key);
  return it == values_.end() ? "(none)" : it->second;
}

std::map<std::string, std::string> ServiceReport::Below(const std::string& prefix) const {
  std::map<std::string, std::string> found;
  for (auto it = values_.lower_bound(prefix); it != values_.end() && it->first.starts_with(prefix);
       ++it) {
    found[it->first.substr(prefix.size())] = it->second;
  }
  return found;
}

pid_t ServiceReport::Pid() const {
  return ProcMgr::ParseNumber<pid_t>(Get("pid")).value_or(0);
}

ServiceReport AwaitReport(const Sandbox& sandbox, const std::string& inside, pid_t previous) {
  ServiceReport report;
  const bool came = Eventually([&] {
    report = ServiceReport(sandbox.ReadFile(inside));
    return report.Pid() != 0 && report.Pid() != previous;
  });
  if (!came) {
    throw std::runtime_error("no service has written its report to " + inside);
  }
  return report;
}

}  // namespace PmTest
