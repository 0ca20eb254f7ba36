// What the master channel knows about its descriptors. Used by proc_mgr_master.cpp only.
#ifndef MESSAGE_NAME_TABLE_H
#define MESSAGE_NAME_TABLE_H

#include <chrono>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/mutex.h"
#include "core/steady_time.h"

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

// The openings under way, and the wait for the filing of what they give.
class Openings {
 public:
  // One opening, from before the library is called to after its descriptor has been filed.
  class Scope {
   public:
    explicit Scope(Openings& openings) : openings_(openings) { openings_.Begin(); }
    ~Scope() { openings_.End(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Openings& openings_;
  };

  // Waits until `isFiled` yields true, no opening is under way or the limit has passed. Yields the
  // last result of `isFiled`. No filing can slip through between its call and the test of the
  // counter: the end of an opening comes after its filing and needs the mutex.
  template <typename Predicate>
  [[nodiscard]] bool WaitUntilFiled(std::chrono::milliseconds limit, Predicate isFiled)
      EXCLUDES(mutex_) {
    const SteadyTime deadline = SteadyNow() + limit;
    const MutexLock lock(mutex_);
    bool inTime = true;
    while (!isFiled()) {
      if (underWay_ == 0 || !inTime) {
        return false;
      }
      inTime = ended_.WaitUntil(mutex_, deadline);
    }
    return true;
  }

 private:
  void Begin() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    ++underWay_;
  }

  void End() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    --underWay_;
    ended_.NotifyAll();
  }

  Mutex mutex_;
  CondVar ended_;
  int underWay_ GUARDED_BY(mutex_) = 0;
};

}  // namespace ProcMgr

#endif  // MESSAGE_NAME_TABLE_H
