// What the manager tells of itself and its applications (docs/status.md), as text for a person.
#ifndef TOOLS_PMCTL_MANAGER_VIEW_H
#define TOOLS_PMCTL_MANAGER_VIEW_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmCtl {

// Each throws nlohmann's exceptions for anything that isn't such an answer. Texts that come from
// applications are made printable.

// Everything about one application: the answer to "app". A line a fact.
std::string FormatApp(const nlohmann::json& app);

// Why the application is in its state, from it to the root of the matter, a line each with what to
// do about it: from the answer to "status". Of a running one, how it ended before. Empty if no
// application of that name is known.
std::string FormatWhy(const nlohmann::json& status, const std::string& name);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_MANAGER_VIEW_H
