#include "tools/check/finding.h"

#include <algorithm>
#include <array>
#include <map>
#include <tuple>

#include "base/nearest_word.h"
#include "base/printable.h"

namespace ProcMgr::Check {

std::span<const Rule> Rules() {
  static constexpr std::array kRules = {
      Rule{"faulty-file", "The file can't be loaded as it is"},
      Rule{"doubtful-file", "The loader passes over something in the file"},
      Rule{"unmet-dependency", "A dependency on an application that isn't there"},
      Rule{"circle", "Services that depend on each other in a circle"},
      Rule{"dependency-without-report", "A dependency on a service that doesn't report itself"},
      Rule{"shell-token", "An argument with a token of a shell, which a start refuses"},
      Rule{"channel-name", "A reporting service whose name can't be a channel's"},
      Rule{"proc-name", "A reporting service that isn't told its own name"},
      Rule{"pattern-in-base", "A pattern in a base service, which no request ever fills"},
      Rule{"unread-key", "A key that isn't read where it stands"},
      Rule{"entry-file", "A start-up entry file that can't be found"},
      Rule{"priority", "A start-up priority that doesn't lead to a start"},
      Rule{"entry-twice", "An application in two start-up entry files"},
      Rule{"user", "A user that the host doesn't know, or that is in too many groups"},
      Rule{"binary", "A program that the host doesn't have, or can't run for the user"},
      Rule{"library", "A shared library that the host doesn't have"},
      Rule{"size", "Arguments or variables that are more than the kernel takes"},
      Rule{"numa", "A device function whose memory can't be bound to its nodes"},
      Rule{"digest", "A program that isn't the one that is listed"},
      Rule{"cores", "Cores outside of the control set"},
      Rule{"cgroup", "A cgroup or cpuset that the host doesn't have"},
      Rule{"share-group", "A share pool group that the host doesn't have"},
      Rule{"kernel-cmdline", "What the kernel command line changes about the boot"},
  };
  return kRules;
}

void SortFindings(std::vector<Finding>& findings) {
  std::map<std::string, std::size_t> rank;
  for (const Finding& finding : findings) {
    rank.emplace(finding.file, rank.size());
  }
  const auto key = [&rank](const Finding& finding) {
    return std::tuple(rank.at(finding.file), finding.place.line, finding.place.column);
  };
  std::stable_sort(findings.begin(), findings.end(),
                   [&key](const Finding& a, const Finding& b) { return key(a) < key(b); });
}

std::string NearHint(const std::string& name, const std::vector<std::string_view>& names) {
  // More than that wrong is another word.
  const std::size_t limit = std::clamp<std::size_t>(name.size() / 3, 1, 3);
  const auto nearest = FindNearWord(name, names, limit);
  return nearest ? "; the nearest name is " + Quoted(*nearest) : "";
}

}  // namespace ProcMgr::Check
