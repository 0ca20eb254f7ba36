// What has become of the platform's services.
#ifndef TOOLS_DEMO_DEMO_TABLE_H
#define TOOLS_DEMO_DEMO_TABLE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "sandbox/log_reader.h"
#include "tools/demo/demo_platform.h"

namespace Demo {

struct ServiceRow {
  std::string name;
  pid_t pid = 0;      // Of the last start; 0 if there was none.
  std::string state;  // "running", "ended" or "not started", from /proc.
  std::string user;   // Of the running process.
  std::string cores;  // That it may run on.
  std::string group;  // In the cpu hierarchy, the last part of its path.
  int restarts = 0;
  std::optional<double> readyMs;  // From the first start to ready; a job has none.
};

// Reads the rows off the log and /proc, one per service, in their order. The users are those of the
// sandbox.
std::vector<ServiceRow> CollectTable(const PmSandbox::Sandbox& sandbox,
                                     const std::vector<PlatformService>& services,
                                     const std::vector<PmSandbox::LogLine>& log);

void PrintTable(const std::vector<ServiceRow>& rows);

}  // namespace Demo

#endif  // TOOLS_DEMO_DEMO_TABLE_H
