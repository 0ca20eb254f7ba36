#include "core/process_facts.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <string_view>

#include "base/small_file.h"
#include "base/text.h"

namespace ProcMgr {
namespace {

// The value of a "Key:\tVALUE" line of a status file; empty if there is none. The name of the
// process stands in the first line and can't pretend to be another one: its newlines are escaped.
std::string_view Field(std::string_view status, const std::string& key) {
  const std::string start = "\n" + key + ":\t";
  const std::size_t at = status.find(start);
  if (at == std::string_view::npos) {
    return {};
  }
  const std::string_view value = status.substr(at + start.size());
  return value.substr(0, value.find('\n'));
}

// Reads the four numbers between tabs.
template <typename Id>
bool ReadIds(std::string_view text, std::array<Id, 4>& out) {
  return std::all_of(out.begin(), out.end(), [&text](Id& id) {
    const std::size_t end = std::min(text.find('\t'), text.size());
    const auto number = ParseNumber<Id>(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    id = number.value_or(0);
    return number.has_value();
  });
}

}  // namespace

bool ReadProcessIds(pid_t pid, ProcessIds& out) {
  const std::string number = std::to_string(pid);
  std::string status;
  ProcessIds ids;
  if (ReadSmallFile("/proc/" + number + "/status", kConfigFileLimit, status) != 0 ||
      Field(status, "Tgid") != number || !ReadIds(Field(status, "Uid"), ids.uids) ||
      !ReadIds(Field(status, "Gid"), ids.gids)) {
    return false;
  }
  out = ids;
  return true;
}

std::string ProgramOf(pid_t pid) {
  constexpr std::string_view kReplaced = " (deleted)";
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  std::string_view path(target.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
  if (path.ends_with(kReplaced)) {
    path.remove_suffix(kReplaced.size());
  }
  return std::string(path);
}

}  // namespace ProcMgr
