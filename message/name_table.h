// What the master channel knows about its descriptors. Used by proc_mgr_master.cpp only.
#ifndef MESSAGE_NAME_TABLE_H
#define MESSAGE_NAME_TABLE_H

#include <sys/timerfd.h>

#include <chrono>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr {

// Which name has which descriptor. Names are never removed: -1 stands for no open channel.
class NameTable {
 public:
  void Set(const std::string& name, int fd) EXCLUDES(lock_) {
    const WriteLock lock(lock_);
    int& entry = fdOfName_.try_emplace(name, -1).first->second;
    nameOfFd_.erase(entry);
    entry = fd;
    if (fd > 0) {
      nameOfFd_[fd] = name;
    }
  }

  // Takes the descriptor out of the table and marks it as about to be closed. Yields -1 if there
  // is none.
  int TakeForClosing(const std::string& name) EXCLUDES(lock_) {
    const WriteLock lock(lock_);
    const int fd = std::exchange(fdOfName_.try_emplace(name, -1).first->second, -1);
    if (fd > 0) {
      nameOfFd_.erase(fd);
      closing_.insert(fd);
    }
    return fd;
  }

  // Marks a descriptor that never came into the table.
  void MarkForClosing(int fd) EXCLUDES(lock_) {
    const WriteLock lock(lock_);
    closing_.insert(fd);
  }

  // Takes the mark away. Yields false if somebody else has done so already.
  bool ClaimClosing(int fd) EXCLUDES(lock_) {
    const WriteLock lock(lock_);
    return closing_.erase(fd) != 0;
  }

  [[nodiscard]] bool IsClosing(int fd) EXCLUDES(lock_) {
    const ReadLock lock(lock_);
    return closing_.contains(fd);
  }

  [[nodiscard]] std::vector<int> Closing() EXCLUDES(lock_) {
    const ReadLock lock(lock_);
    return {closing_.begin(), closing_.end()};
  }

  [[nodiscard]] int FdOf(const std::string& name) EXCLUDES(lock_) {
    const ReadLock lock(lock_);
    const auto found = fdOfName_.find(name);
    return found == fdOfName_.end() ? -1 : found->second;
  }

  [[nodiscard]] bool NameOf(int fd, std::string& name) EXCLUDES(lock_) {
    const ReadLock lock(lock_);
    const auto found = nameOfFd_.find(fd);
    if (found == nameOfFd_.end()) {
      return false;
    }
    name = found->second;
    return true;
  }

 private:
  SharedMutex lock_;
  std::unordered_map<std::string, int> fdOfName_ GUARDED_BY(lock_);
  // The same the other way round, so that a frame's sender is found without a walk.
  std::unordered_map<int, std::string> nameOfFd_ GUARDED_BY(lock_);
  // Descriptors that are out of the table and not closed yet.
  std::unordered_set<int> closing_ GUARDED_BY(lock_);
};

// The openings under way, one at a time for a name; and the wait for the filing of what they give.
//
// An opening waits for a peer by its name. If the peer's process ends and another takes its place,
// a connection that was made to the old one must not be filed for the new one: Restarted tells the
// opening to begin again. Each decision about that and the filing itself are made under one mutex,
// which is taken before the name table's lock.
class Openings {
 public:
  // One opening, from before the library is called to after its descriptor has been filed.
  class Scope {
   public:
    // `patience` is how long the opening may take; 0 for as long as the library allows.
    Scope(Openings& openings, const std::string& name, std::chrono::milliseconds patience)
        : openings_(openings), name_(name), isFirst_(openings.Begin(name, patience)) {}
    ~Scope() {
      if (isFirst_) {
        openings_.End(name_);
      }
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    // False: another opening of the name is under way, and this one isn't.
    [[nodiscard]] bool IsFirst() const { return isFirst_; }

    // The descriptor that becomes readable when the wait for the peer is to end; -1 if the kernel
    // had none to give.
    [[nodiscard]] int CancelFd() { return openings_.CancelFd(name_); }

    // Calls `file`, unless the opening has to begin again.
    template <typename File>
    [[nodiscard]] bool TryFile(File file) {
      return openings_.TryFile(name_, file);
    }

   private:
    Openings& openings_;
    const std::string& name_;
    const bool isFirst_;
  };

  // The peer's process has ended: what an opening of `name` has got by now is worthless. Calls
  // `unfile` in the same breath.
  template <typename Unfile>
  void Restarted(const std::string& name, Unfile unfile) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    unfile();
    if (const auto opening = underWay_.find(name); opening != underWay_.end()) {
      opening->second.isRestarted = true;
      SetTimer(opening->second, std::chrono::nanoseconds(1));
    }
  }

  // Ends the opening of `name` for good, if there is one. It sticks: a wait that begins later ends
  // too.
  void GiveUp(const std::string& name) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (const auto opening = underWay_.find(name); opening != underWay_.end()) {
      opening->second.isGivenUp = true;
      SetTimer(opening->second, std::chrono::nanoseconds(1));
    }
  }

  // Waits for the end of the opening of `name`, if there is one.
  void WaitForEnd(const std::string& name) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (underWay_.contains(name)) {
      ended_.Wait(mutex_);
    }
  }

  // Waits until `isFiled` yields true, no opening is under way or the limit has passed. Yields the
  // last result of `isFiled`. No filing can slip through between its call and the test of the
  // openings: the end of an opening comes after its filing and needs the mutex.
  template <typename Predicate>
  [[nodiscard]] bool WaitUntilFiled(std::chrono::milliseconds limit, Predicate isFiled)
      EXCLUDES(mutex_) {
    const SteadyTime deadline = SteadyNow() + limit;
    const MutexLock lock(mutex_);
    bool inTime = true;
    while (!isFiled()) {
      if (underWay_.empty() || !inTime) {
        return false;
      }
      inTime = ended_.WaitUntil(mutex_, deadline);
    }
    return true;
  }

 private:
  struct Opening {
    // A timer, so that one descriptor ends the wait for every reason there is.
    UniqueFd cancel{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    std::chrono::nanoseconds patience{0};
    bool isRestarted = false;
    bool isGivenUp = false;
  };

  // Makes the descriptor readable after `delay`; 0 for never. What it said before is forgotten.
  static void SetTimer(const Opening& opening, std::chrono::nanoseconds delay) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(delay);
    itimerspec setting{};
    setting.it_value.tv_sec = seconds.count();
    setting.it_value.tv_nsec = (delay - seconds).count();
    (void)timerfd_settime(opening.cancel.Get(), 0, &setting, nullptr);
  }

  bool Begin(const std::string& name, std::chrono::milliseconds patience) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    const auto [opening, isFirst] = underWay_.try_emplace(name);
    if (isFirst) {
      opening->second.patience = patience;
      SetTimer(opening->second, patience);
    }
    return isFirst;
  }

  void End(const std::string& name) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    underWay_.erase(name);
    ended_.NotifyAll();
  }

  int CancelFd(const std::string& name) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return underWay_.at(name).cancel.Get();
  }

  template <typename File>
  bool TryFile(const std::string& name, File file) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    Opening& opening = underWay_.at(name);
    if (opening.isRestarted && !opening.isGivenUp) {
      opening.isRestarted = false;
      SetTimer(opening, opening.patience);
      return false;
    }
    file();
    return true;
  }

  Mutex mutex_;
  CondVar ended_;
  std::map<std::string, Opening> underWay_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_NAME_TABLE_H
