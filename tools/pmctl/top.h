// What the applications use just now.
#ifndef TOOLS_PMCTL_TOP_H
#define TOOLS_PMCTL_TOP_H

#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "base/steady_time.h"
#include "status/proc_facts.h"

namespace PmCtl {

struct Usage {
  std::string name;  // Printable.
  pid_t pid = 0;
  ProcMgr::Status::ProcFacts process;
};

struct UsageSample {
  ProcMgr::SteadyTime time;
  std::vector<Usage> usages;
};

// The manager and all applications of the answer to "status" that have a process, from /proc: the
// manager isn't asked for more. Descriptors of others are told to root alone.
[[nodiscard]] UsageSample SampleUsage(const nlohmann::json& status);

// The keys of the columns, for a choice.
inline constexpr const char* kTopKeys[] = {"cpu", "memory", "threads", "descriptors"};

// The usage of `now` as a table, the greatest first by `key`, one of kTopKeys; the CPU as percent
// of one core since `before`.
[[nodiscard]] std::string FormatTop(const UsageSample& before, const UsageSample& now,
                                    const std::string& key);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_TOP_H
