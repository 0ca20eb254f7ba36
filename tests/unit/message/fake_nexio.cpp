#include "tests/unit/message/fake_nexio.h"

#include <optional>

#include "base/immortal.h"
#include "base/sleep.h"

namespace ProcMgr {
namespace Test {
namespace {

std::optional<int> Next(std::deque<int>& results) {
  if (results.empty()) {
    return std::nullopt;
  }
  const int result = results.front();
  results.pop_front();
  return result;
}

}  // namespace

FakeNexio& FakeNexio::Instance() {
  return Immortal<FakeNexio>();  // The keeper may still close when the test program ends.
}

void FakeNexio::Reset() {
  const std::lock_guard lock(mutex_);
  state_ = State();
}

void FakeNexio::Deliver(int fd, const NexioRequest* request) {
  NexioRequestCallback callback;
  {
    const std::lock_guard lock(mutex_);
    const auto found = state_.callbacks.find(fd);
    if (found == state_.callbacks.end()) {
      return;
    }
    callback = found->second;
    state_.running[fd] = std::this_thread::get_id();
  }
  callback(fd, request);
  const std::lock_guard lock(mutex_);
  state_.running.erase(fd);
}

int FakeNexio::Open(const NexioOpenParam& param) {
  int fd = 0;
  std::function<void(int)> hook;
  std::function<void(const NexioOpenParam&)> opening;
  {
    const std::lock_guard lock(mutex_);
    opening = state_.onOpening;
  }
  if (opening) {
    opening(param);
  }
  {
    const std::lock_guard lock(mutex_);
    state_.opened.push_back(param);
    state_.openedNames.emplace_back(param.peerName);
    if (const auto result = Next(state_.openResults); result.has_value() && *result < 1) {
      return *result;
    }
    fd = nextFd_++;
    state_.callbacks[fd] = param.requestCallback;
    hook = state_.onOpen;
  }
  if (hook) {
    hook(fd);
  }
  return fd;
}

int FakeNexio::Close(int fd) {
  const std::lock_guard lock(mutex_);
  state_.closeCalls.push_back(fd);
  if (const auto result = Next(state_.closeResults); result.has_value()) {
    return *result;
  }
  if (!state_.callbacks.contains(fd)) {
    return kNexioBadFd;
  }
  const auto running = state_.running.find(fd);
  if (running != state_.running.end() && running->second != std::this_thread::get_id()) {
    return kNexioCallback;
  }
  state_.callbacks.erase(fd);
  ++state_.timesClosed[fd];
  return 0;
}

int FakeNexio::Send(int fd, std::uint32_t seq, const void* data, std::uint32_t size) {
  const std::lock_guard lock(mutex_);
  const int result = Next(state_.sendResults).value_or(0);
  if (result >= 0) {
    state_.sent.push_back({fd, seq, {static_cast<const char*>(data), size}});
  }
  return result;
}

void FakeNexio::Sleep(std::int64_t nanoseconds) {
  std::function<void()> hook;
  {
    const std::lock_guard lock(mutex_);
    state_.sleeps.push_back(nanoseconds);
    hook = state_.onSleep;
  }
  if (hook) {
    hook();
  }
}

}  // namespace Test

using Test::FakeNexio;

int NexioOpen(const NexioOpenParam& param) {
  return FakeNexio::Instance().Open(param);
}

int NexioClosePipe(int fd) {
  return FakeNexio::Instance().Close(fd);
}

int NexioSendRequest(int fd, const NexioRequest& request) {
  return FakeNexio::Instance().Send(fd, request.seq, request.data, request.size);
}

int NexioSendResponse(int fd, const NexioResponse& response) {
  return FakeNexio::Instance().Send(fd, response.seq, response.data, response.size);
}

int NexioClearName(const char* /*name*/, uid_t /*uid*/, gid_t /*gid*/) {
  return 0;
}

int NexioCreateServer(const NexioServerParam& param) {
  FakeNexio::Instance()->serverParam = param;
  return FakeNexio::Instance()->serverResult;
}

int NexioRPCSync(int, const NexioRequest&, NexioResponse&) {
  return kNexioTimeout;
}

int NexioTimedRPCSync(int, const NexioRequest&, NexioResponse&, std::uint32_t) {
  return kNexioTimeout;
}

// In the place of base/sleep.h's.
void SleepNs(std::int64_t nanoseconds) {
  FakeNexio::Instance().Sleep(nanoseconds);
}

}  // namespace ProcMgr
