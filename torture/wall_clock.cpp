#include "torture/wall_clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>

#include "torture/preload.h"

namespace {

using PmTorture::WallClock;

WallClock* Shared() {
  static WallClock* const shared = PmTorture::OpenShared<WallClock>(PmTorture::kWallClockVariable);
  return shared;
}

void NoteTrust() {
  if (WallClock* const shared = Shared(); shared != nullptr) {
    ++shared->trusts;
  }
}

// The function that this library stands before.
template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock_id, timespec* tp) noexcept {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock_id, tp));
  const bool isWall = clock_id == CLOCK_REALTIME || clock_id == CLOCK_REALTIME_COARSE;
  if (WallClock* const shared = result == 0 && isWall ? Shared() : nullptr; shared != nullptr) {
    ++shared->looks;
    tp->tv_sec += shared->aheadS.load();
  }
  return result;
}

int gettimeofday(timeval* tv, void* /*tz*/) noexcept {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  *tv = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

time_t time(time_t* timer) noexcept {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  if (timer != nullptr) {
    *timer = now.tv_sec;
  }
  return now.tv_sec;
}

int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* abstime) {
  NoteTrust();
  return Next<decltype(&pthread_cond_timedwait)>("pthread_cond_timedwait")(cond, mutex, abstime);
}

int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock_id,
                           const timespec* abstime) {
  if (clock_id == CLOCK_REALTIME) {
    NoteTrust();
  }
  return Next<decltype(&pthread_cond_clockwait)>("pthread_cond_clockwait")(cond, mutex, clock_id,
                                                                           abstime);
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* abstime) noexcept {
  NoteTrust();
  return Next<decltype(&pthread_mutex_timedlock)>("pthread_mutex_timedlock")(mutex, abstime);
}

int sem_timedwait(sem_t* sem, const timespec* abstime) {
  NoteTrust();
  return Next<decltype(&sem_timedwait)>("sem_timedwait")(sem, abstime);
}

int clock_nanosleep(clockid_t clock_id, int flags, const timespec* req, timespec* rem) {
  if (clock_id == CLOCK_REALTIME && flags == TIMER_ABSTIME) {
    NoteTrust();
  }
  return Next<decltype(&clock_nanosleep)>("clock_nanosleep")(clock_id, flags, req, rem);
}

int timerfd_create(clockid_t clock_id, int flags) noexcept {
  if (clock_id == CLOCK_REALTIME) {
    NoteTrust();
  }
  return static_cast<int>(syscall(SYS_timerfd_create, clock_id, flags));
}

}  // extern "C"
