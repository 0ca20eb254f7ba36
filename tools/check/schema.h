// The JSON schema of the service files, for editors.
#ifndef TOOLS_CHECK_SCHEMA_H
#define TOOLS_CHECK_SCHEMA_H

#include <string>

namespace ProcMgr::Check {

// A schema of draft 2020-12, made from the table by which the loader reads. It takes what the
// loader takes without a warning, and can't see into patterns and the user database.
[[nodiscard]] std::string ServiceFileSchema();

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_SCHEMA_H
