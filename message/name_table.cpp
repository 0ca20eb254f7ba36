#include "message/name_table.h"

#include <utility>

namespace ProcMgr {

NameTable::Place NameTable::Prepare(const std::string& name) {
  std::unordered_map<int, std::string> places;
  places.emplace(-1, name);
  const WriteLock lock(lock_);
  (void)fdOfName_.try_emplace(name, -1);
  // No more descriptors than names are ever in it.
  nameOfFd_.reserve(fdOfName_.size());
  return places.extract(places.begin());
}

void NameTable::Set(Place place, int fd) noexcept {
  const WriteLock lock(lock_);
  int& entry = fdOfName_.find(place.mapped())->second;
  nameOfFd_.erase(entry);
  entry = fd;
  if (fd > 0) {
    nameOfFd_.erase(fd);
    place.key() = fd;
    nameOfFd_.insert(std::move(place));
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
