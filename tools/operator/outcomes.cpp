#include "tools/operator/outcomes.h"

#include <utility>

namespace Operator {

using ProcMgr::MutexLock;
using ProcMgr::SteadyTime;

Outcomes::Waiter::Waiter(Outcomes& outcomes, std::vector<std::string> names, SteadyTime deadline)
    : outcomes_(outcomes), names_(std::move(names)), isValid_(outcomes.Reserve(names_, deadline)) {}

Outcomes::Waiter::~Waiter() {
  if (isValid_) {
    outcomes_.Free(names_);
  }
}

Outcomes::Reports Outcomes::Waiter::Wait(const std::vector<std::string>& names,
                                         SteadyTime deadline) const {
  const MutexLock lock(outcomes_.mutex_);
  while (!outcomes_.AllReported(names) &&
         outcomes_.changed_.WaitUntil(outcomes_.mutex_, deadline)) {
  }
  Reports reports;
  for (const std::string& name : names) {
    if (const auto& report = outcomes_.slots_.at(name); report.has_value()) {
      reports.emplace(name, *report);
    }
  }
  return reports;
}

void Outcomes::Report(const std::vector<ProcMgr::Message::AppStateInfo>& changes) {
  {
    const MutexLock lock(mutex_);
    for (const ProcMgr::Message::AppStateInfo& change : changes) {
      const auto slot = slots_.find(change.appName);
      if (slot != slots_.end() && !slot->second.has_value()) {
        slot->second = change;
      }
    }
  }
  changed_.NotifyAll();
}

bool Outcomes::Reserve(const std::vector<std::string>& names, SteadyTime deadline) {
  const MutexLock lock(mutex_);
  while (AnyTaken(names)) {
    if (!changed_.WaitUntil(mutex_, deadline) && AnyTaken(names)) {
      return false;
    }
  }
  // All at once, so that two requests with common names never wait for each other.
  for (const std::string& name : names) {
    slots_.emplace(name, std::nullopt);
  }
  return true;
}

void Outcomes::Free(const std::vector<std::string>& names) {
  {
    const MutexLock lock(mutex_);
    for (const std::string& name : names) {
      slots_.erase(name);
    }
  }
  changed_.NotifyAll();
}

bool Outcomes::AnyTaken(const std::vector<std::string>& names) const {
  for (const std::string& name : names) {
    if (slots_.contains(name)) {
      return true;
    }
  }
  return false;
}

bool Outcomes::AllReported(const std::vector<std::string>& names) const {
  for (const std::string& name : names) {
    if (!slots_.at(name).has_value()) {
      return false;
    }
  }
  return true;
}

}  // namespace Operator
