#include "platform/nexio/handle_table.h"

#include <cstddef>
#include <limits>
#include <new>
#include <utility>

#include "base/immortal.h"
#include "platform/nexio/channel.h"
#include "platform/nexio/server.h"

namespace ProcMgr::Nexio {
namespace {

// Of those who never ask again, the oldest are forgotten.
constexpr std::size_t kMaxLate = 1024;

}  // namespace

HandleTable& HandleTable::Instance() {
  return Immortal<HandleTable>();
}

int HandleTable::NewHandle(Use use) {
  constexpr int kMost = std::numeric_limits<int>::max();
  const WriteLock lock(mutex_);
  return lastHandle_ >= (use == Use::kOwn ? kMost : kMost / 2) ? 0 : ++lastHandle_;
}

void HandleTable::Add(int handle, std::shared_ptr<Channel> channel) {
  const WriteLock lock(mutex_);
  channels_.emplace(handle, std::move(channel));
}

void HandleTable::Add(int handle, std::shared_ptr<Server> server) {
  const WriteLock lock(mutex_);
  servers_.emplace(handle, std::move(server));
}

std::shared_ptr<Channel> HandleTable::FindChannel(int handle) {
  const ReadLock lock(mutex_);
  const auto found = channels_.find(handle);
  return found == channels_.end() ? nullptr : found->second;
}

std::shared_ptr<Server> HandleTable::FindServer(int handle) {
  const ReadLock lock(mutex_);
  const auto found = servers_.find(handle);
  return found == servers_.end() ? nullptr : found->second;
}

void HandleTable::Remove(int handle) {
  // What is removed is destroyed behind the lock: a callback's captures may do anything.
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Server> server;
  const WriteLock lock(mutex_);
  late_.erase(handle);
  if (const auto node = channels_.extract(handle)) {
    channel = node.mapped();
  }
  if (const auto node = servers_.extract(handle)) {
    server = node.mapped();
  }
}

void HandleTable::RemoveLate(int handle) {
  std::shared_ptr<Channel> channel;
  const WriteLock lock(mutex_);
  const auto node = channels_.extract(handle);
  if (!node) {
    return;
  }
  channel = node.mapped();
  try {
    late_.insert(handle);
  } catch (const std::bad_alloc&) {
    // Who asks again is told that there is no such descriptor, which is true too.
    return;
  }
  if (late_.size() > kMaxLate) {
    late_.erase(late_.begin());
  }
}

bool HandleTable::TakeLate(int handle) {
  const WriteLock lock(mutex_);
  return late_.erase(handle) > 0;
}

}  // namespace ProcMgr::Nexio
