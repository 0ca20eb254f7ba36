// The table that "pmctl status" prints.
#ifndef TOOLS_PMCTL_TABLE_H
#define TOOLS_PMCTL_TABLE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace PmCtl {

// The processes of the access manager's picture, one a line below a line of headings. What a
// process calls itself is made printable. Throws nlohmann's exceptions for anything that isn't the
// picture.
std::string FormatTable(const nlohmann::json& picture);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_TABLE_H
