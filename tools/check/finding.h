// What the checker has to tell.
#ifndef TOOLS_CHECK_FINDING_H
#define TOOLS_CHECK_FINDING_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/manifest/place.h"

namespace ProcMgr::Check {

// A warning is what starts, or may start, but hardly as somebody meant it.
enum class Severity { kWarning, kError };

struct Finding {
  Severity severity = Severity::kError;
  // The id of a rule of Rules().
  std::string rule;
  std::string file;  // Empty for what concerns no file.
  Manifest::Place place;
  // What is wrong, and what would be right; printable.
  std::string text;
  // The application that it is about; empty for none in particular.
  std::string service = {};
};

// A kind of finding.
struct Rule {
  std::string_view id;
  std::string_view description;
};

// All kinds, for readers of the machine formats.
[[nodiscard]] std::span<const Rule> Rules();

// Orders them by file, in the order of the files' first findings, and by place.
void SortFindings(std::vector<Finding>& findings);

// "; the nearest name is ...": the element of `names` that somebody may have meant by `name`. Empty
// if none is near.
[[nodiscard]] std::string NearHint(const std::string& name,
                                   const std::vector<std::string_view>& names);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_FINDING_H
