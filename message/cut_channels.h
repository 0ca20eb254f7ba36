// Channels that their other end has cut. Used by proc_mgr_master.cpp only.
#ifndef MESSAGE_CUT_CHANNELS_H
#define MESSAGE_CUT_CHANNELS_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"

namespace ProcMgr {

// Says when it is time to see what has become of the service. Any thread.
class CutChannels {
 public:
  // A service that ends cuts its channel too; its end is known by then.
  static constexpr std::chrono::milliseconds kSettle{300};
  // Lies between two of a name, so that a peer that cuts whatever it is given costs little.
  static constexpr std::chrono::seconds kApart{5};

  struct Cut {
    std::string name;
    int fd = 0;
  };

  void Note(const std::string& name, int fd, SteadyTime now) EXCLUDES(mutex_);

  // Yields each cut once, when its time has come; of several of a name the last.
  [[nodiscard]] std::vector<Cut> TakeDue(SteadyTime now) EXCLUDES(mutex_);

 private:
  struct Entry {
    int fd = 0;  // 0: taken.
    SteadyTime due;
    SteadyTime nextDue;  // The next cut isn't due before.
  };

  Mutex mutex_;
  // No cut is due before, so that who asks in every pass walks over nothing.
  SteadyTime firstDue_ GUARDED_BY(mutex_) = SteadyTime::max();
  std::map<std::string, Entry> byName_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_CUT_CHANNELS_H
