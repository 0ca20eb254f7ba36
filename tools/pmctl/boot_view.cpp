#include "tools/pmctl/boot_view.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include "tools/pmctl/table.h"
#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

// A link of the chain that is shorter than this part of the boot isn't worth a line.
constexpr double kShortLink = 0.01;

// A plus marks what still goes on.
std::string LengthOf(const BootRow& row, const char* phase) {
  const BootSpan* const span = row.Find(phase);
  return span == nullptr ? "-" : OneDecimal(span->Length()) + (span->isOver ? "" : "+");
}

// The manager's own phases and what applications took, which have no phase in common.
std::string FormatRows(const BootTimeline& boot) {
  Table own({">BEGIN", ">MS", "PHASE"});
  Table apps({">BEGIN", ">CHECKS", ">FORK", ">READY", ">CHANNEL", ">MS", "NAME"});
  bool hasApps = false;
  for (const BootRow& row : boot.rows) {
    if (row.Find("checks") == nullptr && row.Find("fork") == nullptr) {
      for (const BootSpan& span : row.spans) {
        own.Add({OneDecimal(span.begin), OneDecimal(span.Length()) + (span.isOver ? "" : "+"),
                 span.phase});
      }
      continue;
    }
    hasApps = true;
    apps.Add({OneDecimal(row.Begin()), LengthOf(row, "checks"), LengthOf(row, "fork"),
              LengthOf(row, "ready"), LengthOf(row, "open"), OneDecimal(row.Length()), row.name});
  }
  return own.Text(false) + (hasApps ? "\n" + apps.Text(false) : "");
}

std::string FormatChain(const BootTimeline& boot) {
  Table table({">BEGIN", ">MS", "WHAT"});
  std::size_t passedOver = 0;
  double passedOverMs = 0;
  for (const BootLink& link : boot.chain) {
    if (link.span.Length() < kShortLink * boot.end) {
      ++passedOver;
      passedOverMs += link.span.Length();
    } else {
      table.Add({OneDecimal(link.span.begin), OneDecimal(link.span.Length()),
                 link.span.phase + " " + link.name});
    }
  }
  const std::string more = passedOver == 0
                               ? ""
                               : "and " + std::to_string(passedOver) + " shorter ones, together " +
                                     OneDecimal(passedOverMs) + " ms\n";
  return "\nthe critical chain, each link having waited for the one before it:\n" +
         table.Text(false) + more;
}

std::string FormatEnd(const BootTimeline& boot) {
  if (boot.isOver) {
    return "\nthe boot took " + OneDecimal(boot.end) + " ms\n";
  }
  return "\nthe boot goes on for " + OneDecimal(boot.end) + " ms" +
         (boot.awaited.empty() ? "" : ", and waits for " + boot.awaited) + "\n";
}

std::string Signed(double ms) {
  return (ms < 0 ? "" : "+") + OneDecimal(ms);
}

}  // namespace

std::string FormatBoot(const BootTimeline& boot) {
  return FormatRows(boot) + FormatChain(boot) + FormatEnd(boot);
}

std::string CompareBoots(const BootTimeline& boot, const BootTimeline& before) {
  std::map<std::string, std::pair<std::optional<double>, std::optional<double>>> lengths;
  for (const BootRow& row : before.rows) {
    lengths[row.name].first = row.Length();
  }
  for (const BootRow& row : boot.rows) {
    lengths[row.name].second = row.Length();
  }
  std::vector<std::pair<double, std::vector<std::string>>> rows;
  for (const auto& [name, length] : lengths) {
    const double change = length.second.value_or(0) - length.first.value_or(0);
    rows.push_back({std::abs(change),
                    {length.first ? OneDecimal(*length.first) : "-",
                     length.second ? OneDecimal(*length.second) : "-", Signed(change), name}});
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  Table table({">BEFORE", ">NOW", ">CHANGE", "NAME"});
  for (const auto& row : rows) {
    table.Add(row.second);
  }
  return table.Text(false) + "the boot took " + OneDecimal(boot.end) + " ms, before " +
         OneDecimal(before.end) + " ms: " + Signed(boot.end - before.end) + " ms\n";
}

}  // namespace PmCtl
