// What the memory gives out: copies, so that its lock is held for no longer than they take.
#include <sys/eventfd.h>

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

// The service is woken by the first change, and takes what has come with it. Under the lock, so
// that the descriptor is the service's still; it never waits.
void Memory::Tell(const AppPicture* app) {
  if (watchFd_ < 0) {
    return;
  }
  if (changes_.list.size() >= kMostChanges) {
    changes_.isOverrun = true;
    return;
  }
  changes_.list.push_back({manager_, app == nullptr ? std::nullopt : std::optional(*app)});
  if (changes_.list.size() == 1) {
    (void)eventfd_write(watchFd_, 1);  // Fails only if it is as readable as can be.
  }
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
