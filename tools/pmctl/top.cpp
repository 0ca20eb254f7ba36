#include "tools/pmctl/top.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/names.h"
#include "tools/pmctl/table.h"
#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

using Number = std::optional<std::uint64_t>;

struct Row {
  const Usage* usage = nullptr;
  std::optional<double> cpu;
};

// A process that wasn't there before, or has another's pid, has no past.
std::optional<double> CpuOf(const Usage& now, const Usage* before, double seconds) {
  if (before == nullptr || before->name != now.name || !before->process.cpuMs ||
      !now.process.cpuMs || *now.process.cpuMs < *before->process.cpuMs || seconds <= 0) {
    return std::nullopt;
  }
  constexpr double kPercentOfMs = 0.1;
  return static_cast<double>(*now.process.cpuMs - *before->process.cpuMs) * kPercentOfMs / seconds;
}

double ValueOf(const Row& row, const std::string& key) {
  const ProcMgr::Status::ProcFacts& process = row.usage->process;
  if (key == "cpu") {
    return row.cpu.value_or(-1);
  }
  const Number number = key == "memory"    ? process.rssKib
                        : key == "threads" ? process.threads
                                           : process.fds;
  return number ? static_cast<double>(*number) : -1;
}

std::string Shown(const Number& number) {
  return number ? std::to_string(*number) : "-";
}

}  // namespace

UsageSample SampleUsage(const nlohmann::json& status) {
  UsageSample sample{ProcMgr::SteadyNow(), {}};
  const auto add = [&sample](const std::string& name, const nlohmann::json& pid) {
    if (!pid.is_null()) {
      const auto number = pid.get<pid_t>();
      sample.usages.push_back({name, number, ProcMgr::Status::ReadProcFacts(number)});
    }
  };
  add(ProcMgr::kManagerName, status.at("manager").at("pid"));
  for (const nlohmann::json& app : status.at("apps")) {
    add(Text(app.at("name")), app.at("pid"));
  }
  return sample;
}

std::string FormatTop(const UsageSample& before, const UsageSample& now, const std::string& key) {
  std::map<pid_t, const Usage*> past;
  for (const Usage& usage : before.usages) {
    past[usage.pid] = &usage;
  }
  const double seconds = std::chrono::duration<double>(now.time - before.time).count();
  std::vector<Row> rows;
  for (const Usage& usage : now.usages) {
    const auto found = past.find(usage.pid);
    rows.push_back({&usage, CpuOf(usage, found == past.end() ? nullptr : found->second, seconds)});
  }
  std::stable_sort(rows.begin(), rows.end(), [&key](const Row& a, const Row& b) {
    return ValueOf(a, key) > ValueOf(b, key);
  });
  Table table({"NAME", ">PID", ">CPU %", ">MEMORY KiB", ">THREADS", ">DESCRIPTORS"});
  for (const Row& row : rows) {
    const ProcMgr::Status::ProcFacts& process = row.usage->process;
    table.Add({row.usage->name, std::to_string(row.usage->pid),
               row.cpu ? OneDecimal(*row.cpu) : "-", Shown(process.rssKib), Shown(process.threads),
               Shown(process.fds)});
  }
  return table.Text(false);
}

}  // namespace PmCtl
