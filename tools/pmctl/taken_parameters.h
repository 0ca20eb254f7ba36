// Whether a start's parameters have reached the process.
#ifndef TOOLS_PMCTL_TAKEN_PARAMETERS_H
#define TOOLS_PMCTL_TAKEN_PARAMETERS_H

#include <string>

#include "tools/pmctl/options.h"

namespace PmCtl {

// Those of --arg, --env and --path that the process of the application runs without, as they stand
// on the command line; empty if there are none, or if nobody can tell.
[[nodiscard]] std::string UntakenParameters(const Options& options, const std::string& name);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_TAKEN_PARAMETERS_H
