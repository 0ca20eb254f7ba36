// What the manager's log says of a base service.
#ifndef SANDBOX_SERVICE_LINES_H
#define SANDBOX_SERVICE_LINES_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "sandbox/log_reader.h"

namespace PmSandbox {

// The pid that a line names, which it must.
[[nodiscard]] pid_t PidIn(const std::string& line);

// Waits for the start of `name` at index `from` or later. Yields its pid; none if it doesn't come.
[[nodiscard]] std::optional<pid_t> AwaitStart(const LogReader& log, const std::string& name,
                                              std::size_t from = 0);

// Waits for the end of the opening of a restarted service's channel. Yields whether there is one:
// on a busy machine a service that doesn't report may serve too late. None if none ends.
[[nodiscard]] std::optional<bool> AwaitOpening(const LogReader& log, const std::string& name,
                                               std::size_t from = 0);

}  // namespace PmSandbox

#endif  // SANDBOX_SERVICE_LINES_H
