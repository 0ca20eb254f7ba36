// Handles and what they stand for.
#ifndef PLATFORM_NEXIO_HANDLE_TABLE_H
#define PLATFORM_NEXIO_HANDLE_TABLE_H

#include <memory>
#include <set>
#include <unordered_map>

#include "base/mutex.h"

namespace ProcMgr::Nexio {

class Channel;
class Server;

class HandleTable {
 public:
  // The process's one table.
  static HandleTable& Instance();

  // A handle that was never given out before, 1 or more; 0 if there is none left. Strangers, who
  // may connect and go as often as they are let, get the lower half only.
  enum class Use { kOwn, kStranger };
  [[nodiscard]] int NewHandle(Use use) EXCLUDES(mutex_);

  void Add(int handle, std::shared_ptr<Channel> channel) EXCLUDES(mutex_);
  void Add(int handle, std::shared_ptr<Server> server) EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<Channel> FindChannel(int handle) EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<Server> FindServer(int handle) EXCLUDES(mutex_);
  void Remove(int handle) EXCLUDES(mutex_);

  // Removes the channel and remembers that it was closed late: one who was told kNexioCallback asks
  // again, and must hear that it is done rather than that there is no such descriptor. Nothing if
  // the channel has been removed already.
  void RemoveLate(int handle) EXCLUDES(mutex_);
  // True, once, for a handle of RemoveLate.
  [[nodiscard]] bool TakeLate(int handle) EXCLUDES(mutex_);

 private:
  // A leaf.
  SharedMutex mutex_;
  int lastHandle_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<int, std::shared_ptr<Channel>> channels_ GUARDED_BY(mutex_);
  std::unordered_map<int, std::shared_ptr<Server>> servers_ GUARDED_BY(mutex_);
  std::set<int> late_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_HANDLE_TABLE_H
