// The start order as a picture.
#ifndef TOOLS_CHECK_GRAPH_H
#define TOOLS_CHECK_GRAPH_H

#include <string>

#include "tools/check/report.h"

namespace ProcMgr::Check {

// A digraph of Graphviz: an arrow from each service to what depends on it, the services of a round
// beside each other. What reports has a double border, what is refused or has an error is red, and
// so is a name that isn't there, in dashes; an arrow from a service that doesn't report is orange.
[[nodiscard]] std::string DotGraph(const CheckedFile& file);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_GRAPH_H
