#include "message/cut_channels.h"

#include <algorithm>

namespace ProcMgr {

void CutChannels::Note(const std::string& name, int fd, SteadyTime now) {
  const MutexLock lock(mutex_);
  Entry& entry = byName_[name];
  entry.fd = fd;
  entry.due = std::max(now + kSettle, entry.nextDue);
  firstDue_ = std::min(firstDue_, entry.due);
}

std::vector<CutChannels::Cut> CutChannels::TakeDue(SteadyTime now) {
  std::vector<Cut> due;
  const MutexLock lock(mutex_);
  if (now < firstDue_) {
    return due;
  }
  firstDue_ = SteadyTime::max();
  for (auto& [name, entry] : byName_) {
    if (entry.fd == 0) {
      continue;
    }
    if (now < entry.due) {
      firstDue_ = std::min(firstDue_, entry.due);
      continue;
    }
    due.push_back({name, entry.fd});
    entry.fd = 0;
    entry.nextDue = now + kApart;
  }
  return due;
}

}  // namespace ProcMgr
