// What the kernel knows about a process.
#ifndef STATUS_PROC_FACTS_H
#define STATUS_PROC_FACTS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ProcMgr::Status {

// Each is none where /proc doesn't say.
struct ProcFacts {
  std::optional<std::uint64_t> threads;
  std::optional<std::uint64_t> cpuMs;
  std::optional<std::uint64_t> rssKib;
  std::optional<std::uint64_t> fds;
  std::optional<std::vector<std::uint32_t>> cores;
  std::optional<std::uint64_t> user;
  std::optional<std::vector<std::uint64_t>> groups;  // The supplementary ones.
  // Controllers and path, as the kernel writes them.
  std::optional<std::vector<std::pair<std::string, std::string>>> cgroups;
};

// Nothing for a `pid` of 0. Reads /proc.
[[nodiscard]] ProcFacts ReadProcFacts(pid_t pid);

// "0-3,7" as numbers, up to 4096 of them; none for anything else.
[[nodiscard]] std::optional<std::vector<std::uint32_t>> ParseCoreList(std::string_view text);

}  // namespace ProcMgr::Status

#endif  // STATUS_PROC_FACTS_H
