#include "message/name_table.h"

#include <utility>

namespace ProcMgr {

void NameTable::Set(const std::string& name, int fd) {
  const WriteLock lock(lock_);
  int& entry = fdOfName_.try_emplace(name, -1).first->second;
  nameOfFd_.erase(entry);
  entry = fd;
  if (fd > 0) {
    nameOfFd_[fd] = name;
  }
}

int NameTable::TakeForClosing(const std::string& name) {
  const WriteLock lock(lock_);
  const int fd = std::exchange(fdOfName_.try_emplace(name, -1).first->second, -1);
  if (fd > 0) {
    nameOfFd_.erase(fd);
    closing_.insert(fd);
  }
  return fd;
}

bool NameTable::ClaimClosing(int fd) {
  const WriteLock lock(lock_);
  return closing_.erase(fd) != 0;
}

bool NameTable::IsClosing(int fd) {
  const ReadLock lock(lock_);
  return closing_.contains(fd);
}

std::vector<int> NameTable::Closing() {
  const ReadLock lock(lock_);
  return {closing_.begin(), closing_.end()};
}

int NameTable::FdOf(const std::string& name) {
  const ReadLock lock(lock_);
  const auto found = fdOfName_.find(name);
  return found == fdOfName_.end() ? -1 : found->second;
}

bool NameTable::NameOf(int fd, std::string& name) {
  const ReadLock lock(lock_);
  const auto found = nameOfFd_.find(fd);
  if (found == nameOfFd_.end()) {
    return false;
  }
  name = found->second;
  return true;
}

}  // namespace ProcMgr
