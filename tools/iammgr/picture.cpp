#include "tools/iammgr/picture.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/app_state.h"

namespace Iammgr {
namespace {

constexpr std::size_t kMostEntries = 8192;

std::string UtcText(std::time_t time) {
  std::tm parts{};
  (void)gmtime_r(&time, &parts);
  std::string text(sizeof("YYYY-MM-DDTHH:MM:SSZ"), '\0');
  text.resize(std::strftime(text.data(), text.size(), "%FT%TZ", &parts));
  return text;
}

}  // namespace

const char* Picture::StateWord(State state) {
  switch (state) {
    case State::kStarting:
      return "starting";
    case State::kRunning:
      return "running";
    case State::kTermTimeout:
      return "term-timeout";
    case State::kEnded:
      return "ended";
    case State::kFailed:
      return "failed";
  }
  return "";
}

void Picture::Apply(const std::vector<ProcMgr::Message::AppStateInfo>& changes, std::time_t now) {
  const ProcMgr::MutexLock lock(mutex_);
  for (const ProcMgr::Message::AppStateInfo& change : changes) {
    ApplyOne(change, now);
  }
  if (entries_.size() > kMostEntries) {
    DropOldest();
  }
}

void Picture::ApplyOne(const ProcMgr::Message::AppStateInfo& change, std::time_t now) {
  using ProcMgr::ReportAppStateType;
  const auto event = static_cast<ReportAppStateType>(change.state);
  if (change.pid < 1 && !entries_.contains(change.appName)) {
    return;  // The answer to a request for a name that has no process.
  }
  const auto [place, isNew] = entries_.try_emplace(change.appName);
  Entry& entry = place->second;
  if (isNew) {
    entry.kind = known_.Find(change.appName, change.pid, manager_);
    entry.since = now;
  }
  switch (event) {
    case ReportAppStateType::RUNNING_NORMAL_START:
      if (entry.kind.kind == "manager") {
        manager_ = change.pid;
      }
      // A base service that has come back is reported like one that has come.
      if (!isNew && entry.kind.kind == "base" && entry.pid != change.pid) {
        ++entry.restarts;
      }
      Move(entry, State::kRunning, change, now);
      break;
    case ReportAppStateType::RUNNING_NORMAL_RESTART:
      ++entry.restarts;
      Move(entry, State::kRunning, change, now);
      break;
    case ReportAppStateType::RUNNING_ABNORMAL_TERM_TIMEOUT:
      Move(entry, State::kTermTimeout, change, now);
      break;
    case ReportAppStateType::TERMINATED_NORMAL_EXIT:
      Move(entry, State::kEnded, change, now);
      break;
    case ReportAppStateType::TERMINATED_ABNORMAL_EXIT:
      Move(entry, State::kFailed, change, now);
      break;
    case ReportAppStateType::INVALID_INTERMEDIATE_STATE:
      // Nothing has happened; of a process that is new here, it tells that it isn't up yet.
      if (isNew) {
        Move(entry, State::kStarting, change, now);
      }
      break;
  }
}

void Picture::Move(Entry& entry, State state, const ProcMgr::Message::AppStateInfo& change,
                   std::time_t now) {
  // The reconciliation repeats what is known; that changes no time.
  if (entry.state != state || (change.pid > 0 && entry.pid != change.pid)) {
    entry.since = now;
  }
  entry.state = state;
  if (change.pid > 0) {
    entry.pid = change.pid;
  }
}

void Picture::DropOldest() {
  std::vector<std::map<std::string, Entry>::iterator> gone;
  for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
    if (!IsAlive(entry->second.state)) {
      gone.push_back(entry);
    }
  }
  std::sort(gone.begin(), gone.end(),
            [](const auto& a, const auto& b) { return a->second.since < b->second.since; });
  gone.resize(std::min(gone.size(), entries_.size() - kMostEntries));
  for (const auto& entry : gone) {
    entries_.erase(entry);
  }
}

std::string Picture::ToJson() const {
  nlohmann::ordered_json processes = nlohmann::ordered_json::array();
  const ProcMgr::MutexLock lock(mutex_);
  for (const auto& [name, entry] : entries_) {
    nlohmann::ordered_json row;
    row["name"] = name;
    row["kind"] = entry.kind.kind;
    row["owner"] = entry.kind.owner.empty() ? nullptr : nlohmann::ordered_json(entry.kind.owner);
    row["pid"] = IsAlive(entry.state) ? nlohmann::ordered_json(entry.pid) : nullptr;
    row["state"] = StateWord(entry.state);
    row["since"] = UtcText(entry.since);
    row["restarts"] = entry.restarts;
    processes.push_back(std::move(row));
  }
  // Names of other processes are their own affair; one that isn't UTF-8 must not hide the others.
  return nlohmann::ordered_json{{"processes", std::move(processes)}}.dump(
      -1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace Iammgr
