#include "platform/heartbeat/heartbeat_table.h"

#include <algorithm>
#include <utility>

namespace ProcMgr::HeartBeat {

void Table::Register(std::string_view name, gid_t gid, HeartBeatNotify notify, SteadyTime now) {
  Entry entry;
  entry.gid = gid;
  entry.notify = notify;
  entry.registration = ++registrations_;
  entry.heard = now;
  entries_.insert_or_assign(std::string(name), entry);
  CheckBy(Deadline(entry));
}

void Table::Unregister(std::string_view name) {
  if (const auto found = entries_.find(name); found != entries_.end()) {
    entries_.erase(found);
  }
}

BeatResult Table::Beat(std::string_view name, gid_t gid, pid_t pid, SteadyTime now,
                       std::vector<News>& news) {
  const auto found = entries_.find(name);
  if (found == entries_.end()) {
    return BeatResult::kUnknown;
  }
  Entry& entry = found->second;
  if (entry.gid != gid) {
    return std::exchange(entry.metStranger, true) ? BeatResult::kStranger
                                                  : BeatResult::kStrangerAnew;
  }
  entry.heard = now;
  entry.pid = pid;
  entry.hasBeaten = true;
  entry.spared.reset();
  if (std::exchange(entry.isLost, false)) {
    news.push_back({found->first, pid, kHeartBeatRecovered, entry.notify, entry.registration});
  }
  CheckBy(Deadline(entry));
  return BeatResult::kCounted;
}

std::optional<SteadyTime> Table::LastBeat(std::string_view name) const {
  const auto found = entries_.find(name);
  if (found == entries_.end() || !found->second.hasBeaten) {
    return std::nullopt;
  }
  return found->second.heard;
}

void Table::Expire(SteadyTime now, std::vector<News>& news) {
  if (!nextCheck_ || now < *nextCheck_) {
    return;
  }
  nextCheck_.reset();
  for (auto& [name, entry] : entries_) {
    if (entry.isLost) {
      continue;
    }
    if (Deadline(entry) <= now) {
      entry.isLost = true;
      news.push_back({name, entry.pid, kHeartBeatLost, entry.notify, entry.registration});
    } else {
      CheckBy(Deadline(entry));
    }
  }
}

void Table::Excuse(std::chrono::nanoseconds deafness, SteadyTime now) {
  for (auto& [name, entry] : entries_) {
    entry.heard = std::min(entry.heard + deafness, now);
  }
}

void Table::Spare(SteadyTime now) {
  for (auto& [name, entry] : entries_) {
    if (Deadline(entry) <= now && !entry.spared) {
      entry.spared = now + Patience(entry) / 2;
    }
  }
}

bool Table::IsCurrent(const News& news) const {
  const auto found = entries_.find(news.name);
  return found != entries_.end() && found->second.registration == news.registration;
}

std::chrono::milliseconds Table::Patience(const Entry& entry) const {
  return entry.hasBeaten ? limits_.silence : limits_.firstBeat;
}

SteadyTime Table::Deadline(const Entry& entry) const {
  return entry.spared.value_or(entry.heard + Patience(entry));
}

void Table::CheckBy(SteadyTime when) {
  nextCheck_ = nextCheck_ ? std::min(*nextCheck_, when) : when;
}

}  // namespace ProcMgr::HeartBeat
