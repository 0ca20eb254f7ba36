#include "status/proc_facts.h"

#include <unistd.h>

#include <string_view>

#include "base/dir_stream.h"
#include "base/small_file.h"
#include "base/text.h"
#include "base/text_lines.h"

namespace ProcMgr::Status {
namespace {

constexpr std::size_t kFileLimit = 65536;
constexpr std::string_view kBlanks = " \t";

std::string ReadOf(const std::string& folder, const char* file) {
  std::string text;
  (void)ReadSmallFile(folder + file, kFileLimit, text);  // A process that has gone has no files.
  return text;
}

// Takes the next word off `text`; empty at its end.
std::string_view TakeWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

std::vector<std::uint64_t> Numbers(std::string_view text) {
  std::vector<std::uint64_t> numbers;
  for (std::string_view word = TakeWord(text); !word.empty(); word = TakeWord(text)) {
    if (const auto number = ParseNumber<std::uint64_t>(word)) {
      numbers.push_back(*number);
    }
  }
  return numbers;
}

void ReadStatus(std::string_view text, ProcFacts& facts) {
  while (!text.empty()) {
    std::string_view line = TakeLine(text);
    const std::string_view key = line.substr(0, line.find(':'));
    line.remove_prefix(std::min(key.size() + 1, line.size()));
    if (key == "Threads") {
      facts.threads = ParseNumber<std::uint64_t>(TakeWord(line));
    } else if (key == "VmRSS") {
      facts.rssKib = ParseNumber<std::uint64_t>(TakeWord(line));
    } else if (key == "Uid") {
      facts.user = ParseNumber<std::uint64_t>(TakeWord(line));
    } else if (key == "Groups") {
      facts.groups = Numbers(line);
    } else if (key == "Cpus_allowed_list") {
      facts.cores = ParseCoreList(TakeWord(line));
    }
  }
}

// The user and system time of "stat", in clock ticks: the 12th and 13th word behind the name, which
// stands in parentheses and may hold anything.
std::optional<std::uint64_t> ReadCpuMs(std::string_view text) {
  constexpr int kWordsBefore = 11;
  const std::size_t name = text.rfind(')');
  const long ticks = sysconf(_SC_CLK_TCK);
  if (name == std::string_view::npos || ticks <= 0) {
    return std::nullopt;
  }
  text.remove_prefix(name + 1);
  for (int word = 0; word < kWordsBefore; ++word) {
    (void)TakeWord(text);
  }
  const auto user = ParseNumber<std::uint64_t>(TakeWord(text));
  const auto system = ParseNumber<std::uint64_t>(TakeWord(text));
  if (!user || !system) {
    return std::nullopt;
  }
  return (*user + *system) * 1000 / static_cast<std::uint64_t>(ticks);
}

std::optional<std::uint64_t> CountEntries(const std::string& path) {
  const DirStream folder(opendir(path.c_str()));
  if (folder == nullptr) {
    return std::nullopt;
  }
  std::uint64_t count = 0;
  while (const dirent* const entry = readdir(folder.get())) {
    count += static_cast<std::uint64_t>(entry->d_name[0] != '.');
  }
  return count;
}

// "ID:CONTROLLERS:PATH" a line.
std::vector<std::pair<std::string, std::string>> ReadCgroups(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> groups;
  while (!text.empty()) {
    std::string_view line = TakeLine(text);
    line.remove_prefix(std::min(line.find(':') + 1, line.size()));
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      groups.emplace_back(line.substr(0, colon), line.substr(colon + 1));
    }
  }
  return groups;
}

}  // namespace

std::optional<std::vector<std::uint32_t>> ParseCoreList(std::string_view text) {
  constexpr std::uint32_t kMost = 4096;
  std::vector<std::uint32_t> cores;
  while (!text.empty()) {
    const std::string_view range = text.substr(0, text.find(','));
    text.remove_prefix(std::min(range.size() + 1, text.size()));
    const auto bounds = ParseRange(range, kMost);
    if (!bounds) {
      return std::nullopt;
    }
    for (std::uint32_t core = bounds->first; core <= bounds->second; ++core) {
      cores.push_back(core);
    }
  }
  return cores;
}

ProcFacts ReadProcFacts(pid_t pid) {
  ProcFacts facts;
  if (pid <= 0) {
    return facts;
  }
  const std::string folder = "/proc/" + std::to_string(pid);
  ReadStatus(ReadOf(folder, "/status"), facts);
  facts.cpuMs = ReadCpuMs(ReadOf(folder, "/stat"));
  facts.fds = CountEntries(folder + "/fd");
  if (const std::string cgroups = ReadOf(folder, "/cgroup"); !cgroups.empty()) {
    facts.cgroups = ReadCgroups(cgroups);
  }
  return facts;
}

}  // namespace ProcMgr::Status
