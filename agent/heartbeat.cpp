#include "agent/heartbeat.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "base/block_signals.h"
#include "base/steady_time.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

// Where the manager receives beats. It takes the group of the sender from the kernel, not from us.
constexpr char kBeatSocket[] = "/run/heartbeat.sock";

// How long a beat waits for room: as long as there is time until the next one.
constexpr timeval kPatience{0, 500'000};

}  // namespace

BeatSender::BeatSender(std::string name)
    : name_(std::move(name)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  (void)setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
}

Result BeatSender::Beat() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(kBeatSocket) <= sizeof(address.sun_path));
  std::copy(std::begin(kBeatSocket), std::end(kBeatSocket), address.sun_path);
  if (sendto(socket_.Get(), name_.data(), name_.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address), sizeof(address)) >= 0) {
    return Result::kOk;
  }
  const int error = errno;
  if (error == ENOENT || error == ECONNREFUSED) {
    return Result::kNoReceiver;
  }
  if (error == EAGAIN) {
    return Result::kBusy;
  }
  LogError("ProcMgrAgent : can't beat to %s, errno=%d", kBeatSocket, error);
  return Result::kSystemError;
}

PeriodicThread::~PeriodicThread() {
  Stop();
}

void PeriodicThread::Start(std::chrono::milliseconds period, std::function<void()> work) {
  const MutexLock control(control_);
  Join();
  const BlockSignals block;
  thread_ = std::thread([this, period, run = std::move(work)] { Body(period, run); });
}

void PeriodicThread::Stop() {
  const MutexLock control(control_);
  Join();
}

void PeriodicThread::Join() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    changed_.NotifyAll();
  }
  thread_.join();
  const MutexLock lock(mutex_);
  ending_ = false;
}

void PeriodicThread::Body(std::chrono::milliseconds period, const std::function<void()>& work) {
  SteadyTime next = SteadyNow();
  const MutexLock lock(mutex_);
  while (!ending_) {
    const SteadyTime now = SteadyNow();
    if (now < next) {
      // The loop looks at the time itself.
      (void)changed_.WaitUntil(mutex_, next);
      continue;
    }
    mutex_.Unlock();
    work();
    mutex_.Lock();
    next += period;
    if (next < SteadyNow()) {
      next = SteadyNow() + period;
    }
  }
}

}  // namespace ProcMgr
