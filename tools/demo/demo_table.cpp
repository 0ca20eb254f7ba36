#include "tools/demo/demo_table.h"

#include <chrono>
#include <cstdio>
#include <sstream>

#include "base/small_file.h"
#include "base/text.h"
#include "sandbox/process_table.h"

namespace Demo {
namespace {

using PmSandbox::LogLine;

constexpr std::size_t kProcFileLimit = 65536;

// The first line that holds `part`.
const LogLine* Find(const std::vector<LogLine>& log, const std::string& part) {
  for (const LogLine& line : log) {
    if (line.text.find(part) != std::string::npos) {
      return &line;
    }
  }
  return nullptr;
}

pid_t PidIn(const std::string& text) {
  const std::size_t at = text.find("pid=");
  if (at == std::string::npos) {
    return 0;
  }
  const std::string rest = text.substr(at + 4);
  return ProcMgr::ParseNumber<pid_t>(rest.substr(0, rest.find(','))).value_or(0);
}

void ReadLog(const std::vector<LogLine>& log, const PlatformService& service, ServiceRow& row) {
  const std::string start = "Start baseApp success appName=" + service.name + ",";
  const std::string restart = "owner=" + service.name + ",";
  for (const LogLine& line : log) {
    if (line.text.find(start) != std::string::npos) {
      row.pid = PidIn(line.text);
    } else if (line.text.find(restart) != std::string::npos &&
               line.text.ends_with("restart success")) {
      ++row.restarts;
    }
  }
  const LogLine* const started = Find(log, start);
  const LogLine* const ready =
      Find(log, service.isReporting ? "InitBaseApp:" + service.name + " success"
                                    : "STARTING to RUNNING appName=" + service.name + ",");
  if (started != nullptr && ready != nullptr) {
    row.readyMs = std::chrono::duration<double, std::milli>(ready->at - started->at).count();
  }
}

// The name of the user with this id in the sandbox's own /etc/passwd.
std::string UserName(const PmSandbox::Sandbox& sandbox, const std::string& id) {
  std::istringstream lines(sandbox.ReadFile("/etc/passwd"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t name = line.find(':');
    const std::size_t password = line.find(':', name + 1);
    if (line.compare(password + 1, id.size() + 1, id + ":") == 0) {
      return line.substr(0, name);
    }
  }
  return id;
}

std::string CpuGroup(pid_t pid) {
  std::string text;
  (void)ProcMgr::ReadSmallFile("/proc/" + std::to_string(pid) + "/cgroup", kProcFileLimit, text);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(":cpu:/") != std::string::npos || line.find(":cpu,") != std::string::npos) {
      return line.substr(line.rfind('/') + 1);
    }
  }
  return {};
}

void ReadProc(const PmSandbox::Sandbox& sandbox, ServiceRow& row) {
  const PmSandbox::ProcessStat stat = PmSandbox::ReadStat(row.pid);
  if (row.pid == 0) {
    row.state = "not started";
  } else if (stat.pid == 0 || stat.state == 'Z') {
    row.state = "ended";
  } else {
    row.state = "running";
    const std::string ids = PmSandbox::StatusField(row.pid, "Uid");
    row.user = UserName(sandbox, ids.substr(0, ids.find('\t')));
    row.cores = PmSandbox::StatusField(row.pid, "Cpus_allowed_list");
    row.group = CpuGroup(row.pid);
  }
}

}  // namespace

std::vector<ServiceRow> CollectTable(const PmSandbox::Sandbox& sandbox,
                                     const std::vector<PlatformService>& services,
                                     const std::vector<LogLine>& log) {
  std::vector<ServiceRow> rows;
  for (const PlatformService& service : services) {
    ServiceRow row;
    row.name = service.name;
    ReadLog(log, service, row);
    ReadProc(sandbox, row);
    rows.push_back(row);
  }
  return rows;
}

void PrintTable(const std::vector<ServiceRow>& rows) {
  std::printf("\n%-16s %8s  %-11s %-11s %-6s %-8s %8s %10s\n", "NAME", "PID", "STATE", "USER",
              "CORES", "GROUP", "RESTARTS", "READY");
  for (const ServiceRow& row : rows) {
    const std::string pid = row.pid > 0 ? std::to_string(row.pid) : "-";
    std::printf("%-16s %8s  %-11s %-11s %-6s %-8s %8d", row.name.c_str(), pid.c_str(),
                row.state.c_str(), row.user.empty() ? "-" : row.user.c_str(),
                row.cores.empty() ? "-" : row.cores.c_str(),
                row.group.empty() ? "-" : row.group.c_str(), row.restarts);
    if (row.readyMs.has_value()) {
      std::printf(" %7.1f ms\n", *row.readyMs);
    } else {
      std::printf(" %10s\n", "-");
    }
  }
}

}  // namespace Demo
