// All applications at a glance.
#ifndef TOOLS_PMCTL_STATUS_VIEW_H
#define TOOLS_PMCTL_STATUS_VIEW_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmCtl {

// Leaves of the answer to "status" the applications that have failed, were given up, refused or
// blocked.
void KeepWrong(nlohmann::json& status);

// The answer to "status" as a table: what is wrong first, then what is under way, then the rest;
// within each the order of the answer. Above it a line on the manager. Throws nlohmann's exceptions
// for anything that isn't such an answer.
[[nodiscard]] std::string FormatStatus(const nlohmann::json& status, bool isColoured);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_STATUS_VIEW_H
