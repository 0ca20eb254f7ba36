// Where the boot's time went: the manager's answer to "boot", as text for a person.
#ifndef TOOLS_PMCTL_BOOT_VIEW_H
#define TOOLS_PMCTL_BOOT_VIEW_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmCtl {

// Throws nlohmann's exceptions for anything that isn't such an answer.
[[nodiscard]] std::string FormatBoot(const nlohmann::json& boot);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_BOOT_VIEW_H
