// A boot as what is drawn and printed of it: a row an application, and the chain of spans that its
// end has waited for.
#ifndef TOOLS_PMCTL_BOOT_TIMELINE_H
#define TOOLS_PMCTL_BOOT_TIMELINE_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace PmCtl {

// Times are in milliseconds from the manager's start.
struct BootSpan {
  std::string phase;
  double begin = 0;
  double end = 0;           // Of one that still goes on: now.
  bool isOver = true;       // False: it still goes on.
  bool isCritical = false;  // In the chain.

  [[nodiscard]] double Length() const { return end - begin; }
};

struct BootRow {
  std::string name;  // Printable.
  std::vector<BootSpan> spans;

  [[nodiscard]] double Begin() const;
  [[nodiscard]] double End() const;
  // From its beginning to its end.
  [[nodiscard]] double Length() const { return End() - Begin(); }
  // The span of that phase; null if it has none.
  [[nodiscard]] const BootSpan* Find(const std::string& phase) const;
};

// A link of the chain: a span that what follows it has waited for.
struct BootLink {
  std::string name;
  BootSpan span;
};

struct BootTimeline {
  std::vector<BootRow> rows;    // In the order of their beginnings.
  std::vector<BootLink> chain;  // Oldest first.
  double end = 0;               // Of the boot; of one that goes on: now.
  bool isOver = true;
  std::string awaited;  // For whom the boot waits, and for how long; empty for nobody.
};

// The manager's answer to "boot". While the boot goes on, the members "now", in milliseconds, and
// "awaited", of the answer to "status", are looked for beside the manager's own. Throws nlohmann's
// exceptions for anything else.
[[nodiscard]] BootTimeline MakeTimeline(const nlohmann::json& boot);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_BOOT_TIMELINE_H
