// Locks that clang's thread-safety analysis can check.
//
// The analysis needs annotated lock types, and the standard library's carry none, so the project
// uses these thin wrappers everywhere. GCC sees empty macros. A field says GUARDED_BY(lock), a
// function that expects its caller to hold a lock says REQUIRES(lock), one that takes it itself
// says EXCLUDES(lock), and a fixed order of two locks is written as ACQUIRED_AFTER(first) at the
// declaration of the second.
#ifndef BASE_MUTEX_H
#define BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define PM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PM_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) PM_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY PM_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) PM_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) PM_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) PM_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) PM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) PM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) PM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) PM_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) PM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) PM_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) PM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS PM_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace ProcMgr {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() {
    mutex_.lock();
    ++takes_;
  }
  void Unlock() RELEASE() { mutex_.unlock(); }

  // How often it has been taken so far, this time included. Whoever finds it one further than when
  // it last let go knows that nobody has touched what it guards meanwhile.
  [[nodiscard]] std::uint64_t Takes() const REQUIRES(this) { return takes_; }

 private:
  friend class CondVar;
  std::mutex mutex_;
  std::uint64_t takes_ = 0;  // Guarded by mutex_.
};

// Holds a Mutex from its construction to the end of its scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A condition variable for a Mutex. Every wait can wake up for no reason: wait in a loop that tests
// the condition.
class CondVar {
 public:
  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    cond_.wait(lock);
    lock.release();
    ++mutex.takes_;
  }

  // Yields false if `deadline` has passed without a notification.
  [[nodiscard]] bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline)
      REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const std::cv_status status = cond_.wait_until(lock, deadline);
    lock.release();
    ++mutex.takes_;
    return status == std::cv_status::no_timeout;
  }

  void NotifyOne() { cond_.notify_one(); }
  void NotifyAll() { cond_.notify_all(); }

 private:
  std::condition_variable cond_;
};

class CAPABILITY("shared_mutex") SharedMutex {
 public:
  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  void LockShared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void UnlockShared() RELEASE_GENERIC() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

class SCOPED_CAPABILITY ReadLock {
 public:
  explicit ReadLock(SharedMutex& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.LockShared();
  }
  ~ReadLock() RELEASE_GENERIC() { mutex_.UnlockShared(); }
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;

 private:
  SharedMutex& mutex_;
};

class SCOPED_CAPABILITY WriteLock {
 public:
  explicit WriteLock(SharedMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~WriteLock() RELEASE() { mutex_.Unlock(); }
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;

 private:
  SharedMutex& mutex_;
};

}  // namespace ProcMgr

#endif  // BASE_MUTEX_H
