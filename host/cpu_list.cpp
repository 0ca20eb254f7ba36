// The cpuset line format of host/core_affinity_mgr.h.
#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

#include "base/small_file.h"
#include "base/text.h"
#include "base/text_lines.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"

namespace ProcMgr {
namespace {

// Larger than any list that the kernel writes for 1024 cores; bounds what a wrong file costs.
constexpr std::size_t kCpuFileLimit = std::size_t{16} * 1024;
constexpr std::size_t kMaxTokens = 129;
constexpr std::uint32_t kLastCore = 1023;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// One end of a range. None at all counts as 0, and one that doesn't fit as the largest number.
std::uint32_t RangeEnd(std::string_view digits) {
  if (digits.empty()) {
    return 0;
  }
  return ParseNumber<std::uint32_t>(digits).value_or(std::numeric_limits<std::int32_t>::max());
}

std::string_view DigitsBefore(std::string_view text) {
  const auto begin = std::find_if_not(text.rbegin(), text.rend(), &IsDigit).base();
  return text.substr(static_cast<std::size_t>(begin - text.begin()));
}

std::string_view DigitsBehind(std::string_view text) {
  const auto end = std::find_if_not(text.begin(), text.end(), &IsDigit);
  return text.substr(0, static_cast<std::size_t>(end - text.begin()));
}

void ParseCpuCommaList(std::string_view line, std::vector<std::uint32_t>& cores) {
  std::size_t tokens = 0;
  while (!line.empty() && tokens < kMaxTokens) {
    const std::string_view token = line.substr(0, line.find(','));
    line.remove_prefix(std::min(token.size() + 1, line.size()));
    if (token.empty()) {
      continue;
    }
    ++tokens;
    if (const auto core = IsStrDigits(token) ? ParseNumber<std::uint32_t>(token) : std::nullopt) {
      cores.push_back(*core);
    }
  }
}

void ParseCpuRanges(const std::string& path, std::string_view line,
                    std::vector<std::uint32_t>& cores) {
  for (std::size_t dash = line.find('-'); dash != std::string_view::npos;
       dash = line.find('-', dash + 1)) {
    LogInfo("path:%s position:%lu CpuCore size:%lu", path.c_str(), dash, line.size());
    const std::uint32_t first = RangeEnd(DigitsBefore(line.substr(0, dash)));
    const std::uint32_t last = RangeEnd(DigitsBehind(line.substr(dash + 1)));
    LogInfo("path:%s position before:%d after:%d", path.c_str(), static_cast<int>(first),
            static_cast<int>(last));
    for (std::uint32_t core = first; core <= std::min(last, kLastCore); ++core) {
      cores.push_back(core);
    }
  }
}

}  // namespace

void ParseCpuLine(const std::string& path, std::string_view line,
                  std::vector<std::uint32_t>& cores) {
  if (line.find('-') == std::string_view::npos) {
    ParseCpuCommaList(line, cores);
  } else {
    ParseCpuRanges(path, line, cores);
  }
}

void ParseCpuFile(const std::string& path, std::vector<std::uint32_t>& cores) {
  std::string text;
  (void)ReadSmallFile(path, kCpuFileLimit,
                      text);  // The list of a file that can't be read is empty.
  std::string_view rest = text;
  ParseCpuLine(path, TakeLine(rest), cores);
}

}  // namespace ProcMgr
