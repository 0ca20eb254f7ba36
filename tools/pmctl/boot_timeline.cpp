#include "tools/pmctl/boot_timeline.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

using nlohmann::json;

// What has ended so shortly after another's beginning counts as before it: the clock is read twice.
constexpr double kSameMomentMs = 0.005;

// What a boot that goes on has come to, as far as the answer tells.
double NowOf(const json& boot) {
  double now = boot.value("now", 0.0);
  for (const json& span : boot.at("spans")) {
    const json& last = span.at("end").is_null() ? span.at("begin") : span.at("end");
    now = std::max(now, last.get<double>());
  }
  return now;
}

// From the last span to end back to the first: each link is the one that ended last before its
// successor began.
void FindChain(BootTimeline& timeline) {
  std::vector<std::pair<BootRow*, BootSpan*>> spans;
  for (BootRow& row : timeline.rows) {
    for (BootSpan& span : row.spans) {
      spans.emplace_back(&row, &span);
    }
  }
  std::stable_sort(spans.begin(), spans.end(),
                   [](const auto& a, const auto& b) { return a.second->end > b.second->end; });
  double begin = timeline.end;
  for (const auto& [row, span] : spans) {
    if (span->end <= begin + kSameMomentMs && span->begin < begin) {
      span->isCritical = true;
      timeline.chain.push_back({row->name, *span});
      begin = span->begin;
    }
  }
  std::reverse(timeline.chain.begin(), timeline.chain.end());
}

}  // namespace

double BootRow::Begin() const {
  return std::min_element(spans.begin(), spans.end(),
                          [](const auto& a, const auto& b) { return a.begin < b.begin; })
      ->begin;
}

double BootRow::End() const {
  return std::max_element(spans.begin(), spans.end(),
                          [](const auto& a, const auto& b) { return a.end < b.end; })
      ->end;
}

const BootSpan* BootRow::Find(const std::string& phase) const {
  const auto found = std::find_if(spans.begin(), spans.end(),
                                  [&phase](const BootSpan& span) { return span.phase == phase; });
  return found == spans.end() ? nullptr : &*found;
}

BootTimeline MakeTimeline(const json& boot) {
  BootTimeline timeline;
  timeline.isOver = !boot.at("end").is_null();
  const double now = NowOf(boot);
  timeline.end = timeline.isOver ? boot.at("end").get<double>() : now;
  std::map<std::string, std::size_t> places;
  for (const json& span : boot.at("spans")) {
    const std::string name = Text(span.at("name"));
    const auto [place, isNew] = places.emplace(name, timeline.rows.size());
    if (isNew) {
      timeline.rows.push_back({name, {}});
    }
    const json& end = span.at("end");
    timeline.rows[place->second].spans.push_back(
        {Text(span.at("phase")), span.at("begin").get<double>(),
         end.is_null() ? now : end.get<double>(), !end.is_null(), false});
  }
  if (const json awaited = boot.value("awaited", json()); !timeline.isOver && !awaited.is_null()) {
    timeline.awaited = Text(awaited.at("name")) + ", for " + Since(boot, awaited);
  }
  FindChain(timeline);
  return timeline;
}

}  // namespace PmCtl
