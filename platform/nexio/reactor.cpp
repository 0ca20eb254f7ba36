#include "platform/nexio/reactor.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <string>
#include <system_error>
#include <thread>

#include "base/block_signals.h"
#include "base/immortal.h"

namespace ProcMgr::Nexio {
namespace {

constexpr int kThreads = 4;
constexpr auto kExitGrace = std::chrono::seconds(1);

constexpr std::uint64_t kJobsToken = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kTimerToken = kJobsToken - 1;

// Set on the reactor's own threads; one of them may be the one that calls exit.
thread_local bool onReactorThread = false;

std::uint64_t Pack(Token token) {
  return (static_cast<std::uint64_t>(token.kind) << 32) | static_cast<std::uint32_t>(token.handle);
}

Token Unpack(std::uint64_t bits) {
  return {static_cast<TokenKind>(bits >> 32), static_cast<int>(static_cast<std::uint32_t>(bits))};
}

[[nodiscard]] int Control(int epoll, int operation, int fd, std::uint32_t events,
                          std::uint64_t data) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = data;
  return epoll_ctl(epoll, operation, fd, &event) == 0 ? 0 : -errno;
}

}  // namespace

Reactor& Reactor::Instance() {
  return Immortal<Reactor>();
}

int Reactor::Start(Handler handler) {
  if (started_.load(std::memory_order_acquire)) {
    return 0;
  }
  const MutexLock lock(mutex_);
  if (started_.load(std::memory_order_relaxed)) {
    return 0;
  }
  handler_ = handler;
  if (const int result = MakeDescriptors(); result < 0) {
    return result;
  }
  if (const int result = StartThreads(); result < 0) {
    return result;
  }
  owner_ = getpid();
  started_.store(true, std::memory_order_release);
  (void)std::atexit([] { Instance().Stop(); });
  return 0;
}

int Reactor::MakeDescriptors() {
  if (!epoll_.IsOpen()) {
    UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    UniqueFd jobs(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    UniqueFd timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!epoll.IsOpen() || !jobs.IsOpen() || !timer.IsOpen()) {
      return -errno;
    }
    int result = Control(epoll.Get(), EPOLL_CTL_ADD, jobs.Get(), EPOLLIN, kJobsToken);
    if (result == 0) {
      result = Control(epoll.Get(), EPOLL_CTL_ADD, timer.Get(), EPOLLIN, kTimerToken);
    }
    if (result < 0) {
      return result;
    }
    epoll_ = std::move(epoll);
    jobsReady_ = std::move(jobs);
    timer_ = std::move(timer);
  }
  return 0;
}

int Reactor::StartThreads() {
  const BlockSignals block;
  int result = 0;
  while (threads_ < kThreads && result == 0) {
    try {
      std::thread thread([this] { ThreadBody(); });
      const std::string name = "nexio-" + std::to_string(threads_);
      (void)pthread_setname_np(thread.native_handle(), name.c_str());
      thread.detach();
      ++threads_;
    } catch (const std::system_error& error) {
      result = -error.code().value();
    }
  }
  return result;
}

void Reactor::Stop() {
  if (getpid() != owner_) {
    return;  // A forked child that ends with exit has none of the threads.
  }
  const MutexLock lock(mutex_);
  stopping_.store(true);
  // Left unread, the count wakes one thread after the other.
  (void)eventfd_write(jobsReady_.Get(), kThreads);
  const int others = onReactorThread ? 1 : 0;
  const SteadyTime deadline = SteadyNow() + kExitGrace;
  while (threads_ > others && threadGone_.WaitUntil(mutex_, deadline)) {
  }
}

void Reactor::ThreadBody() noexcept {
  onReactorThread = true;
  // The slack of 50 us that threads have by default is more than the naps of a busy channel.
  (void)prctl(PR_SET_TIMERSLACK, 1000UL);
  while (!stopping_.load()) {
    epoll_event event{};
    if (epoll_wait(epoll_.Get(), &event, 1, -1) != 1 || stopping_.load()) {
      continue;
    }
    if (event.data.u64 == kJobsToken) {
      RunJob();
    } else if (event.data.u64 == kTimerToken) {
      RunAlarms();
    } else {
      handler_(Unpack(event.data.u64), Wake::kReady);
    }
  }
  const MutexLock lock(mutex_);
  --threads_;
  threadGone_.NotifyAll();
}

int Reactor::Watch(int fd, Token token) const {
  return Control(epoll_.Get(), EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLONESHOT, Pack(token));
}

void Reactor::Arm(int fd, Token token) const {
  (void)Control(epoll_.Get(), EPOLL_CTL_MOD, fd, EPOLLIN | EPOLLONESHOT, Pack(token));
}

void Reactor::Disarm(int fd, Token token) const {
  (void)Control(epoll_.Get(), EPOLL_CTL_MOD, fd, EPOLLONESHOT, Pack(token));
}

void Reactor::Forget(int fd) const {
  (void)Control(epoll_.Get(), EPOLL_CTL_DEL, fd, 0, 0);
}

void Reactor::Post(Token token) {
  const MutexLock lock(mutex_);
  jobs_.push_back(token);
  (void)eventfd_write(jobsReady_.Get(), 1);
}

void Reactor::RunJob() {
  eventfd_t count = 0;
  if (eventfd_read(jobsReady_.Get(), &count) != 0) {
    // Another thread that was woken by the same count has taken it.
    return;
  }
  Token token;
  {
    const MutexLock lock(mutex_);
    if (jobs_.empty()) {
      return;  // The count was Stop's.
    }
    token = jobs_.front();
    jobs_.pop_front();
  }
  handler_(token, Wake::kReady);
}

void Reactor::SetAlarm(Token token, SteadyTime when) {
  const MutexLock lock(mutex_);
  alarms_.emplace(when, token);
  SetTimer();
}

void Reactor::CancelAlarm(Token token, SteadyTime when) {
  // The timer may then fire for nothing, which sets it for the next alarm.
  const MutexLock lock(mutex_);
  alarms_.erase({when, token});
}

void Reactor::SetTimer() {
  itimerspec setting{};
  if (!alarms_.empty()) {
    // The steady clock is CLOCK_MONOTONIC. 0 would stop the timer, and no alarm is that old.
    const auto since = alarms_.begin()->first.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    setting.it_value.tv_sec = seconds.count();
    setting.it_value.tv_nsec =
        std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count();
  }
  (void)timerfd_settime(timer_.Get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

void Reactor::RunAlarms() {
  std::uint64_t expirations = 0;
  if (read(timer_.Get(), &expirations, sizeof(expirations)) < 0) {
    return;
  }
  std::deque<Token> due;
  {
    const MutexLock lock(mutex_);
    const SteadyTime now = SteadyNow();
    while (!alarms_.empty() && alarms_.begin()->first <= now) {
      due.push_back(alarms_.begin()->second);
      alarms_.erase(alarms_.begin());
    }
    SetTimer();
  }
  for (const Token token : due) {
    handler_(token, Wake::kAlarm);
  }
}

}  // namespace ProcMgr::Nexio
