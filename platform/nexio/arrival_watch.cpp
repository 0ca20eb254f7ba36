#include "platform/nexio/arrival_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <utility>

#include "base/immortal.h"
#include "base/may_wait.h"
#include "base/mutex.h"
#include "platform/nexio/address.h"

namespace ProcMgr::Nexio {
namespace {

// Half of the 10 ms within which an arrival is to be noticed.
constexpr auto kTick = std::chrono::milliseconds(5);

// Attributes, because our servers change them once they listen.
constexpr std::uint32_t kSocketEvents = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_MOVE_SELF;
constexpr std::uint32_t kParentEvents = IN_CREATE | IN_MOVED_TO;

// The process keeps the inotify instance of the last wait for the next one. Closing an instance
// waits for a grace period of the kernel, more than 10 ms, which the one who waited for a peer
// would pay just when it has come.
class Spare {
 public:
  UniqueFd Take() EXCLUDES(mutex_) {
    {
      const MutexLock lock(mutex_);
      if (fd_.IsOpen()) {
        return std::move(fd_);
      }
    }
    return UniqueFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  }
  // `fd` has no watches and no events left.
  void Keep(UniqueFd fd) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (!fd_.IsOpen()) {
      fd_ = std::move(fd);
    }
  }

 private:
  Mutex mutex_;
  UniqueFd fd_ GUARDED_BY(mutex_);
};

}  // namespace

ArrivalWatch::ArrivalWatch(std::string file, int cancelFd)
    : file_(std::move(file)), cancelFd_(cancelFd), inotify_(Immortal<Spare>().Take()) {}

ArrivalWatch::~ArrivalWatch() {
  for (const int watch : {directoryWatch_, parentWatch_}) {
    if (watch >= 0) {
      (void)inotify_rm_watch(inotify_.Get(), watch);
    }
  }
  Drain();
  Immortal<Spare>().Keep(std::move(inotify_));
}

void ArrivalWatch::Refresh() {
  if (!inotify_.IsOpen() || directoryWatch_ >= 0) {
    return;
  }
  directoryWatch_ = inotify_add_watch(inotify_.Get(), kSocketDirectory, kSocketEvents | IN_ONLYDIR);
  if (directoryWatch_ < 0 && parentWatch_ < 0) {
    parentWatch_ = inotify_add_watch(inotify_.Get(), kRunDirectory, kParentEvents | IN_ONLYDIR);
    // It may have come before the parent was watched.
    directoryWatch_ =
        inotify_add_watch(inotify_.Get(), kSocketDirectory, kSocketEvents | IN_ONLYDIR);
  }
  if (directoryWatch_ >= 0 && parentWatch_ >= 0) {
    (void)inotify_rm_watch(inotify_.Get(), parentWatch_);
    parentWatch_ = -1;
  }
}

void ArrivalWatch::Wait(SteadyTime deadline) {
  if (directoryWatch_ < 0 && parentWatch_ < 0) {
    WaitTick(deadline);
  } else {
    Poll(deadline);
  }
}

void ArrivalWatch::WaitTick(SteadyTime deadline) {
  Poll(std::min(deadline, SteadyNow() + kTick));
}

void ArrivalWatch::Poll(SteadyTime until) {
  MayWait("ArrivalWatch");
  constexpr int kLongestMs = 3'600'000;
  // poll passes over a negative descriptor.
  std::array<pollfd, 2> entries{{{inotify_.Get(), POLLIN, 0}, {cancelFd_, POLLIN, 0}}};
  do {
    const int wait = std::min(MillisecondsUntil(until), kLongestMs);
    if (poll(entries.data(), entries.size(), wait) <= 0 || Drain() || entries[1].revents != 0) {
      return;
    }
  } while (SteadyNow() < until);
}

bool ArrivalWatch::Drain() {
  alignas(inotify_event) char events[4096];
  bool mayBeThere = false;
  ssize_t length = 0;
  while ((length = read(inotify_.Get(), events, sizeof(events))) > 0) {
    for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
      inotify_event event{};
      std::memcpy(&event, events + at, sizeof(event));
      const char* const name = events + at + sizeof(event);
      at += sizeof(event) + event.len;
      // An event without a name is about the directory, or says that events were lost.
      mayBeThere |= event.wd != directoryWatch_ || event.len == 0 || file_ == name;
      if (event.wd == directoryWatch_ && (event.mask & IN_MOVE_SELF) != 0) {
        // The watch follows the directory to its new place; we want what is at the old one.
        (void)inotify_rm_watch(inotify_.Get(), directoryWatch_);
        directoryWatch_ = -1;
      } else if (event.wd == directoryWatch_ && (event.mask & IN_IGNORED) != 0) {
        directoryWatch_ = -1;
      }
    }
  }
  return mayBeThere;
}

}  // namespace ProcMgr::Nexio
