#include "tools/pmctl/last_lines.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <string_view>

#include "base/printable.h"
#include "base/text_lines.h"

namespace PmCtl {
namespace {

constexpr std::size_t kMostLines = 10;
constexpr std::size_t kLongestLine = 300;
// Of a log file that grows without end the last so many bytes are looked at.
constexpr std::streamoff kTail = std::streamoff{4} << 20;

std::vector<std::string> FromJournal(const std::vector<pid_t>& pids) {
  // Nothing but numbers goes into the command.
  std::string command =
      "journalctl --quiet --no-pager --output=short-precise --lines=" + std::to_string(kMostLines);
  for (const pid_t pid : pids) {
    command += " _PID=" + std::to_string(pid);
  }
  std::vector<std::string> lines;
  FILE* const pipe = popen((command + " 2>/dev/null").c_str(), "re");
  if (pipe == nullptr) {
    return lines;
  }
  std::string text;
  std::array<char, 4096> block{};
  while (const std::size_t n = std::fread(block.data(), 1, block.size(), pipe)) {
    text.append(block.data(), n);
  }
  (void)pclose(pipe);
  for (std::string_view rest = text; !rest.empty();) {
    lines.emplace_back(ProcMgr::TakeLine(rest));
  }
  return lines;
}

// A line bears the pid of its sender in brackets.
std::vector<std::string> FromFile(std::ifstream& file, const std::vector<pid_t>& pids) {
  std::vector<std::string> marks;
  std::transform(pids.begin(), pids.end(), std::back_inserter(marks),
                 [](pid_t pid) { return "[" + std::to_string(pid) + "]"; });
  file.seekg(0, std::ios::end);
  file.seekg(std::max(std::streamoff{0}, static_cast<std::streamoff>(file.tellg()) - kTail));
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (std::any_of(marks.begin(), marks.end(), [&line](const std::string& mark) {
          return line.find(mark) != std::string::npos;
        })) {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace

std::vector<std::string> LastLines(const std::vector<pid_t>& pids,
                                   const std::vector<std::string>& files) {
  std::vector<std::string> lines;
  if (pids.empty()) {
    return lines;
  }
  if (access("/run/systemd/journal/socket", F_OK) == 0) {
    lines = FromJournal(pids);
  }
  for (const std::string& path : files) {
    if (std::ifstream file(path, std::ios::binary); lines.empty() && file) {
      lines = FromFile(file, pids);
    }
  }
  if (lines.size() > kMostLines) {
    lines.erase(lines.begin(), lines.end() - kMostLines);
  }
  for (std::string& line : lines) {
    line = ProcMgr::Printable(line, kLongestLine);
  }
  return lines;
}

}  // namespace PmCtl
