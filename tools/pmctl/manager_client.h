// Asking the manager at its status socket (docs/status.md).
#ifndef TOOLS_PMCTL_MANAGER_CLIENT_H
#define TOOLS_PMCTL_MANAGER_CLIENT_H

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/local/local_client.h"

namespace PmCtl {

// The manager can't be asked, in words for a person, with the errno of the step that failed (0: it
// has answered that it won't, or something that isn't understood).
class CantAsk : public std::runtime_error {
 public:
  CantAsk(const std::string& text, int error) : std::runtime_error(text), error_(error) {}
  [[nodiscard]] int Error() const { return error_; }

 private:
  int error_;
};

// The answer to one request. Waits two seconds at most, and throws CantAsk.
[[nodiscard]] nlohmann::json AskManager(const std::string& socket, const nlohmann::json& request);

// A status that follows what happens. Throws CantAsk.
class ManagerWatch {
 public:
  explicit ManagerWatch(std::string socket);

  // The status as it is now.
  [[nodiscard]] const nlohmann::json& Status() const { return status_; }

  // Waits at most `limit` for a change, takes it over into the status, and yields its line; none if
  // there was none. When nothing has come for a second the manager is asked for the time, which it
  // tells beside any answer, so that one that answers no more is noticed within two.
  std::optional<nlohmann::json> Next(std::chrono::milliseconds limit);

 private:
  std::optional<nlohmann::json> Take(nlohmann::json line);

  const std::string socket_;
  Local::LineClient client_;
  nlohmann::json status_;
  ProcMgr::SteadyTime heard_;
  std::optional<ProcMgr::SteadyTime> asked_;  // For the time, and nothing has come since.
};

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_MANAGER_CLIENT_H
