// What lets a pass over a list be left out.
#ifndef CORE_LIST_REST_H
#define CORE_LIST_REST_H

#include <cstdint>

#include "base/mutex.h"

namespace ProcMgr {

// Remembers that a list had nothing to be done. That holds for as long as nobody else takes the
// list's lock, without which nothing in it changes. One thread.
class ListRest {
 public:
  // Whether it still holds. Asked at most once each time that the lock is taken.
  [[nodiscard]] bool Lasts(const Mutex& lock) REQUIRES(lock) {
    isResting_ = isResting_ && lock.Takes() == takes_ + 1;
    takes_ = lock.Takes();
    return isResting_;
  }

  // A walk over the whole list, which has just ended, found nothing to do, or something.
  void Note(bool isResting, const Mutex& lock) REQUIRES(lock) {
    isResting_ = isResting;
    takes_ = lock.Takes();
  }

 private:
  bool isResting_ = false;
  std::uint64_t takes_ = 0;
};

}  // namespace ProcMgr

#endif  // CORE_LIST_REST_H
