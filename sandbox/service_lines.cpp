#include "sandbox/service_lines.h"

namespace PmSandbox {

pid_t PidIn(const std::string& line) {
  return std::stoi(line.substr(line.find("pid=") + 4));
}

std::optional<pid_t> AwaitStart(const LogReader& log, const std::string& name, std::size_t from) {
  const auto line = log.WaitFor("Start baseApp success appName=" + name + ",", from);
  return line.has_value() ? std::optional(PidIn(log.At(*line).text)) : std::nullopt;
}

std::optional<bool> AwaitOpening(const LogReader& log, const std::string& name, std::size_t from) {
  const std::string failed = "procname=" + name + " RegisterService failed";
  const auto end = log.WaitFor(
      [&, opened = "targetProcName=" + name](const LogLine& line) {
        return line.text.ends_with(opened) || line.text.ends_with(failed);
      },
      from);
  return end.has_value() ? std::optional(!log.At(*end).text.ends_with(failed)) : std::nullopt;
}

}  // namespace PmSandbox
