// What the memory gives out: copies, so that its lock is held for no longer than they take.
#include <utility>

#include "status/memory.h"

namespace ProcMgr::Status {

Picture Memory::Copy() {
  const MutexLock lock(mutex_);
  return CopyLocked();
}

Picture Memory::CopyLocked() const {
  Picture picture{manager_, {}};
  picture.apps.reserve(entries_.size());
  for (const auto& [id, entry] : entries_) {
    picture.apps.push_back(entry.picture);
  }
  return picture;
}

BootPicture Memory::CopyBoot() {
  const MutexLock lock(mutex_);
  BootPicture picture{end_, {}};
  picture.spans.reserve(spans_.size());
  for (const RawSpan& raw : spans_) {
    Span span{nullptr, raw.phase, raw.begin, std::nullopt};
    if (raw.end.count() >= 0) {
      span.end = raw.end;
    }
    const auto entry = entries_.find(raw.app);
    if (entry != entries_.end()) {
      span.facts = entry->second.picture.facts;
    } else if (raw.app != 0) {
      continue;  // Forgotten.
    }
    picture.spans.push_back(std::move(span));
  }
  return picture;
}

Picture Memory::BeginWatch(int eventFd, Changes& before) {
  const MutexLock lock(mutex_);
  before = std::exchange(changes_, {});
  watchFd_ = eventFd;
  return CopyLocked();
}

void Memory::EndWatch() {
  const MutexLock lock(mutex_);
  watchFd_ = -1;
  changes_ = {};
}

Changes Memory::TakeChanges() {
  const MutexLock lock(mutex_);
  return std::exchange(changes_, {});
}

}  // namespace ProcMgr::Status
