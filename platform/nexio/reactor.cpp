#include "platform/nexio/reactor.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "base/block_signals.h"
#include "base/immortal.h"
#include "base/sleep.h"
#include "platform/nexio/packet.h"

namespace ProcMgr::Nexio {
namespace {

constexpr int kThreads = 4;
constexpr int kMostThreads = 64;
// About a turn of a channel. Threads that come back so soon need no help.
constexpr std::int64_t kHelpAfterNs = 3'000'000;
constexpr auto kExitGrace = std::chrono::seconds(1);

constexpr std::uint64_t kJobsToken = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kTimerToken = kJobsToken - 1;

// How many of the threads may linger; the rest take what comes from others.
constexpr int kMaxLingering = kThreads / 2;

// Whose thread this is, if it is a reactor's; one of them may be the one that calls exit.
thread_local const Reactor* ownReactor = nullptr;

struct Reactors {
  Reactor opened{"nexio-"};
  Reactor accepted{"nexio-in-"};
};

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

Reactor& Reactor::Opened() {
  return Immortal<Reactors>().opened;
}

Reactor& Reactor::Accepted() {
  return Immortal<Reactors>().accepted;
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
  [[maybe_unused]] static const int registered = std::atexit(&StopAll);
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
  int result = 0;
  while (threads_ < kThreads + 1 && result == 0) {
    result = StartThread();
  }
  return result;
}

int Reactor::StartThread() {
  try {
    const BlockSignals block;
    auto memory = std::make_unique_for_overwrite<std::byte[]>(kMaxPacket);
    const std::string name = name_ + std::to_string(threads_);
    std::thread thread([this, buffer = std::move(memory)] {
      ThreadBody({buffer.get(), kMaxPacket});
    });
    (void)pthread_setname_np(thread.native_handle(), name.c_str());
    thread.detach();
    ++threads_;
    return 0;
  } catch (const std::system_error& error) {
    return -error.code().value();
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
}

void Reactor::StopAll() {
  const SteadyTime deadline = SteadyNow() + kExitGrace;
  Reactor* const all[] = {&Opened(), &Accepted()};
  bool runs[std::size(all)] = {};
  std::transform(std::begin(all), std::end(all), runs,
                 [](Reactor* each) { return each->AskToStop(); });
  for (std::size_t i = 0; i < std::size(all); ++i) {
    if (runs[i]) {
      all[i]->AwaitStop(deadline);
    }
  }
}

bool Reactor::AskToStop() {
  if (getpid() != owner_) {
    return false;  // A forked child that ends with exit has none of the threads.
  }
  const MutexLock lock(mutex_);
  stopping_.store(true);
  // Left unread, the count wakes one thread after the other.
  (void)eventfd_write(jobsReady_.Get(), kThreads);
  called_.NotifyAll();
  return true;
}

void Reactor::AwaitStop(SteadyTime deadline) {
  const int others = ownReactor == this ? 1 : 0;
  const MutexLock lock(mutex_);
  while (threads_ > others && threadGone_.WaitUntil(mutex_, deadline)) {
  }
}

void Reactor::ThreadBody(std::span<std::byte> buffer) noexcept {
  ownReactor = this;
  // The slack of 50 us that threads have by default is more than the naps of a busy channel.
  (void)prctl(PR_SET_TIMERSLACK, 1000UL);
  if (StandBy()) {
    ServeEvents(buffer);
  }
  const MutexLock lock(mutex_);
  --threads_;
  threadGone_.NotifyAll();
}

bool Reactor::StandBy() {
  while (true) {
    {
      const MutexLock lock(mutex_);
      if (serving_ < kThreads) {
        ++serving_;
        return true;
      }
      while (!isCalled_ && !stopping_) {
        called_.Wait(mutex_);
      }
    }
    if (stopping_) {
      return false;
    }
    SleepNs(kHelpAfterNs);
    isCalled_ = false;
    const MutexLock lock(mutex_);
    if (waiting_ == 0) {
      if (threads_ < kMostThreads && StartThread() == 0) {
        ++serving_;
        return true;
      }
      isCalled_ = true;  // It may be possible the next time.
    }
  }
}

void Reactor::ServeEvents(std::span<std::byte> buffer) {
  while (!stopping_) {
    if (++waiting_ > kThreads) {
      --waiting_;
      const MutexLock lock(mutex_);
      --serving_;
      return;
    }
    epoll_event event{};
    const int count = epoll_wait(epoll_.Get(), &event, 1, -1);
    if (--waiting_ == 0) {
      CallStandBy();
    }
    if (count == 1 && !stopping_) {
      ServeEvent(event.data.u64, buffer);
    }
  }
}

void Reactor::ServeEvent(std::uint64_t event, std::span<std::byte> buffer) {
  if (event == kJobsToken) {
    RunJob(buffer);
  } else if (event == kTimerToken) {
    RunAlarms(buffer);
  } else {
    handler_(Unpack(event), Wake::kReady, buffer);
  }
}

void Reactor::CallStandBy() {
  if (!isCalled_.exchange(true)) {
    const MutexLock lock(mutex_);
    called_.NotifyAll();
  }
}

int Reactor::Watch(int fd, Token token) {
  const MutexLock lock(mutex_);
  try {
    const std::size_t needed = watched_ + 1;
    if (std::min(jobs_.capacity(), alarms_.capacity()) < needed) {
      jobs_.reserve(2 * needed);
      alarms_.reserve(2 * needed);
    }
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
  const int result = Control(epoll_.Get(), EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLONESHOT, Pack(token));
  watched_ += result == 0 ? 1 : 0;
  return result;
}

void Reactor::Arm(int fd, Token token) const {
  (void)Control(epoll_.Get(), EPOLL_CTL_MOD, fd, EPOLLIN | EPOLLONESHOT, Pack(token));
}

void Reactor::Disarm(int fd, Token token) const {
  (void)Control(epoll_.Get(), EPOLL_CTL_MOD, fd, EPOLLONESHOT, Pack(token));
}

void Reactor::Forget(int fd, Token token) {
  const MutexLock lock(mutex_);
  if (Control(epoll_.Get(), EPOLL_CTL_DEL, fd, 0, 0) == 0) {
    --watched_;
    std::erase(jobs_, token);
    std::erase_if(alarms_, [token](const Alarm& each) { return each.token == token; });
  }
}

void Reactor::Post(Token token) noexcept {
  const MutexLock lock(mutex_);
  if (std::find(jobs_.begin(), jobs_.end(), token) == jobs_.end()) {
    jobs_.push_back(token);
    (void)eventfd_write(jobsReady_.Get(), 1);
  }
}

void Reactor::RunJob(std::span<std::byte> buffer) {
  eventfd_t count = 0;
  if (eventfd_read(jobsReady_.Get(), &count) != 0) {
    // Another thread that was woken by the same count has taken it.
    return;
  }
  Token token;
  {
    const MutexLock lock(mutex_);
    if (jobs_.empty()) {
      return;  // The count was for a stop, or for a token that was forgotten.
    }
    token = jobs_.front();
    jobs_.erase(jobs_.begin());
  }
  handler_(token, Wake::kReady, buffer);
}

void Reactor::SetAlarm(Token token, SteadyTime when) noexcept {
  const MutexLock lock(mutex_);
  const auto later =
      std::upper_bound(alarms_.begin(), alarms_.end(), when,
                       [](SteadyTime time, const Alarm& each) { return time < each.when; });
  alarms_.insert(later, {when, token});
  SetTimer();
}

void Reactor::CancelAlarm(Token token) {
  // The timer may then fire for nothing, which sets it for the next alarm.
  const MutexLock lock(mutex_);
  std::erase_if(alarms_, [token](const Alarm& each) { return each.token == token; });
}

void Reactor::SetTimer() {
  // The steady clock is CLOCK_MONOTONIC. 0 would stop the timer, and no alarm is that old.
  itimerspec setting{};
  const auto since = alarms_.front().when.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
  setting.it_value.tv_sec = seconds.count();
  setting.it_value.tv_nsec =
      std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count();
  (void)timerfd_settime(timer_.Get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

void Reactor::RunAlarms(std::span<std::byte> buffer) {
  std::uint64_t expirations = 0;
  if (read(timer_.Get(), &expirations, sizeof(expirations)) < 0) {
    return;
  }
  while (const std::optional<Token> token = TakeDueAlarm()) {
    handler_(*token, Wake::kAlarm, buffer);
  }
}

std::optional<Token> Reactor::TakeDueAlarm() {
  const MutexLock lock(mutex_);
  if (alarms_.empty()) {
    return std::nullopt;
  }
  if (alarms_.front().when > SteadyNow()) {
    SetTimer();
    return std::nullopt;
  }
  const Token token = alarms_.front().token;
  alarms_.erase(alarms_.begin());
  return token;
}

bool Reactor::BeginLinger() {
  if (++lingering_ <= kMaxLingering) {
    return true;
  }
  --lingering_;
  return false;
}

}  // namespace ProcMgr::Nexio
