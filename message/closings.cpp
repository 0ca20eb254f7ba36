#include "message/closings.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "message/nexio.h"

namespace ProcMgr {
namespace {

// False if the closing is to be tried again.
bool Try(Closing& closing) {
  const int result = closing.attempt();
  if (result == kNexioCallback && --closing.tries > 0) {
    return false;
  }
  closing.outcome(result);
  return true;
}

}  // namespace

bool Closings::Close(Closing closing, SteadyTime now) {
  if (Try(closing)) {
    return false;
  }
  const MutexLock lock(mutex_);
  waiting_.push_back({std::move(closing), now + kPause});
  return true;
}

SteadyTime Closings::TryDue(SteadyTime now) {
  std::vector<Waiting> due;
  {
    const MutexLock lock(mutex_);
    const auto later = std::partition(waiting_.begin(), waiting_.end(),
                                      [now](const Waiting& each) { return each.due > now; });
    due.assign(std::move_iterator(later), std::move_iterator(waiting_.end()));
    waiting_.erase(later, waiting_.end());
  }
  std::erase_if(due, [](Waiting& each) { return Try(each.closing); });
  const MutexLock lock(mutex_);
  for (Waiting& each : due) {
    waiting_.push_back({std::move(each.closing), now + kPause});
  }
  SteadyTime next = SteadyTime::max();
  for (const Waiting& each : waiting_) {
    next = std::min(next, each.due);
  }
  return next;
}

}  // namespace ProcMgr
