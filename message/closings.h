// Closings that a running callback puts off. Used by keeper.cpp only.
#ifndef MESSAGE_CLOSINGS_H
#define MESSAGE_CLOSINGS_H

#include <functional>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"

namespace ProcMgr {

// A closing under way. `attempt` asks the library once; kNexioCallback asks for another try after
// 100 ms, up to `tries` in all. `outcome` gets the last result. Neither may wait or let an
// exception out.
struct Closing {
  std::function<int()> attempt;
  int tries = 1;
  std::function<void(int result)> outcome;
};

// Any thread.
class Closings {
 public:
  static constexpr std::chrono::milliseconds kPause{100};

  // Makes the first try at once. Yields whether the closing waits for another: TryDue is to be
  // called then.
  bool Close(Closing closing, SteadyTime now) EXCLUDES(mutex_);

  // Makes the tries whose time has come. Yields when the next is due; SteadyTime::max() for none.
  SteadyTime TryDue(SteadyTime now) EXCLUDES(mutex_);

 private:
  struct Waiting {
    Closing closing;
    SteadyTime due;
  };

  Mutex mutex_;
  std::vector<Waiting> waiting_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_CLOSINGS_H
