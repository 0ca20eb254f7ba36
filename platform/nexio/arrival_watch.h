// Noticing that a file has changed in the socket directory, which may itself not be there yet.
#ifndef PLATFORM_NEXIO_ARRIVAL_WATCH_H
#define PLATFORM_NEXIO_ARRIVAL_WATCH_H

#include <string>

#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr::Nexio {

// Use: Refresh, look for the thing, and if it isn't there Wait and begin again. What comes between
// the look and the wait is not missed, because the watch stood before the look. For one thread.
class ArrivalWatch {
 public:
  // What happens to other files than `file` ends no wait: where many servers begin at once, whoever
  // waits for one is left alone by the others. Empty: the directory itself. Every wait also ends
  // when `cancelFd` (-1 for none, borrowed) becomes readable.
  explicit ArrivalWatch(std::string file, int cancelFd = -1);
  ~ArrivalWatch();
  ArrivalWatch(const ArrivalWatch&) = delete;
  ArrivalWatch& operator=(const ArrivalWatch&) = delete;

  // Puts the watch where it belongs: on the socket directory, or on its parent until that is there.
  void Refresh();

  // Waits for a change, at most until `deadline`. Without inotify (its instances are limited for
  // each user) it waits one tick of a few milliseconds instead.
  void Wait(SteadyTime deadline);

  // The same for a thing that can arrive without a change in the directory: a socket file that is
  // bound already and begins to listen. Waits for a change, at most one tick.
  void WaitTick(SteadyTime deadline);

 private:
  void Poll(SteadyTime until);
  // Takes the events that are there. Yields whether one of them may have brought the file.
  bool Drain();

  const std::string file_;
  const int cancelFd_;
  UniqueFd inotify_;
  int directoryWatch_ = -1;
  int parentWatch_ = -1;
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_ARRIVAL_WATCH_H
