// How findings and start orders are shown.
#ifndef TOOLS_CHECK_REPORT_H
#define TOOLS_CHECK_REPORT_H

#include <string>
#include <vector>

#include "tools/check/finding.h"
#include "tools/check/service_files.h"
#include "tools/check/start_order.h"

namespace ProcMgr::Check {

// One file of the command line. The findings of its entry files are among its own.
struct CheckedFile {
  PlatformFiles files;
  StartOrder order;
  std::vector<Finding> findings;
};

// Findings to standard error, one line each.
void PrintFindings(const CheckedFile& file);

// The findings, and number of applications, start order and unmet
// dependencies to standard output.
void PrintText(const CheckedFile& file);

// One document about all files to standard output: our own format, and SARIF 2.1.0.
void PrintJson(const std::vector<CheckedFile>& files);
void PrintSarif(const std::vector<CheckedFile>& files);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_REPORT_H
