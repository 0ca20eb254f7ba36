// Which channel belongs to which name. Used by proc_mgr_master.cpp only.
#ifndef MESSAGE_NAME_TABLE_H
#define MESSAGE_NAME_TABLE_H

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/mutex.h"

namespace ProcMgr {

// The descriptor of each name, and those that are being closed. Names are never removed: -1 stands
// for no open channel. Any thread; nothing else is called under the lock.
class NameTable {
 public:
  // A place for the descriptor of a name, to be made before the descriptor is there: then its
  // filing needs no memory.
  using Place = std::unordered_map<int, std::string>::node_type;
  [[nodiscard]] Place Prepare(const std::string& name) EXCLUDES(lock_);
  void Set(Place place, int fd) noexcept EXCLUDES(lock_);

  // Takes the descriptor out of the table and marks it as about to be closed. Yields -1 if there
  // is none.
  [[nodiscard]] int TakeForClosing(const std::string& name) EXCLUDES(lock_);

  // Takes the mark away. Yields false if somebody else has done so already.
  bool ClaimClosing(int fd) EXCLUDES(lock_);

  [[nodiscard]] bool IsClosing(int fd) EXCLUDES(lock_);
  [[nodiscard]] std::vector<int> Closing() EXCLUDES(lock_);

  // Yields -1 for a name that is unknown or has no open channel.
  [[nodiscard]] int FdOf(const std::string& name) EXCLUDES(lock_);
  // False, with `name` as it was, for a descriptor that no name has.
  [[nodiscard]] bool NameOf(int fd, std::string& name) EXCLUDES(lock_);

 private:
  SharedMutex lock_;
  std::unordered_map<std::string, int> fdOfName_ GUARDED_BY(lock_);
  // The same the other way round, so that a frame's sender is found without a walk.
  std::unordered_map<int, std::string> nameOfFd_ GUARDED_BY(lock_);
  // Descriptors that are out of the table and not closed yet.
  std::unordered_set<int> closing_ GUARDED_BY(lock_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_NAME_TABLE_H
