// The findings that need nothing but the service files.
#ifndef TOOLS_CHECK_CHECKS_H
#define TOOLS_CHECK_CHECKS_H

#include <vector>

#include "tools/check/finding.h"
#include "tools/check/service_files.h"
#include "tools/check/start_order.h"

namespace ProcMgr::Check {

// Base services: what refuses them at their turn, and what keeps them from reporting. Linear in the
// size of the file but for the search of near names, of which there is one for each unmet
// dependency.
void CheckBaseServices(const ServiceFile& file, const StartOrder& order,
                       std::vector<Finding>& findings);

// What is started on request or by priority.
void CheckEntryFiles(const std::vector<const ServiceFile*>& files, std::vector<Finding>& findings);

// A finding for each argument of a fixed list that a start would refuse. Of both.
void CheckArguments(const Service& service, std::vector<Finding>& findings);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_CHECKS_H
