// One epoll instance and the four threads that serve it.
//
// Every descriptor is registered one-shot: an event takes it out of the set, so exactly one thread
// works on it until that thread arms it again. The thread that epoll wakes does the reading and
// runs the callbacks itself; nothing is handed from a dispatcher to a worker.
//
// The threads start with the first channel or server, block all signals, and live as long as the
// process. At exit, before the destructors of static objects, they are asked to stop and given a
// second to return from a running callback, so that none runs into an object that is gone.
#ifndef PLATFORM_NEXIO_REACTOR_H
#define PLATFORM_NEXIO_REACTOR_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <set>
#include <tuple>
#include <utility>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"

namespace ProcMgr::Nexio {

// What an event is about. The handle, not a pointer, goes through the kernel: an event that comes
// late finds no such handle instead of a freed object.
enum class TokenKind : std::uint32_t { kChannel = 0, kServer = 1 };
struct Token {
  TokenKind kind = TokenKind::kChannel;
  int handle = 0;
  friend bool operator<(const Token& a, const Token& b) {
    return std::tie(a.kind, a.handle) < std::tie(b.kind, b.handle);
  }
};

enum class Wake { kReady, kAlarm };

class Reactor {
 public:
  // Called on the reactor's threads, with no lock of it held.
  using Handler = void (*)(Token token, Wake why);

  // The process's one reactor.
  static Reactor& Instance();

  // Makes the epoll set and starts the threads, if that hasn't happened. Yields 0 or a negative
  // errno, and can then be tried again.
  [[nodiscard]] int Start(Handler handler) EXCLUDES(mutex_);

  // Adds `fd`, armed. Yields 0 or a negative errno.
  [[nodiscard]] int Watch(int fd, Token token) const;
  // Lets the next readiness of `fd` through, once.
  void Arm(int fd, Token token) const;
  // Lets nothing through but a hang-up.
  void Disarm(int fd, Token token) const;
  // Takes `fd` out of the set. To be called before it is closed: between a fork and the exec, a
  // child's copy would keep it in the set.
  void Forget(int fd) const;

  // Has a thread call the handler for `token` as if it were ready.
  void Post(Token token) EXCLUDES(mutex_);

  // Has a thread call the handler with Wake::kAlarm at `when`; cancelled by the same pair.
  void SetAlarm(Token token, SteadyTime when) EXCLUDES(mutex_);
  void CancelAlarm(Token token, SteadyTime when) EXCLUDES(mutex_);

 private:
  void Stop() EXCLUDES(mutex_);
  void ThreadBody() noexcept;
  void RunJob() EXCLUDES(mutex_);
  void RunAlarms() EXCLUDES(mutex_);
  void SetTimer() REQUIRES(mutex_);
  [[nodiscard]] int MakeDescriptors() REQUIRES(mutex_);
  [[nodiscard]] int StartThreads() REQUIRES(mutex_);

  // Constant once Start has succeeded.
  Handler handler_ = nullptr;
  pid_t owner_ = -1;
  UniqueFd epoll_;
  UniqueFd jobsReady_;  // A semaphore: one count for each job.
  UniqueFd timer_;

  std::atomic<bool> started_ = false;
  std::atomic<bool> stopping_ = false;

  // A leaf: taken under the lock of a channel or of a server, never the other way.
  Mutex mutex_;
  CondVar threadGone_;
  int threads_ GUARDED_BY(mutex_) = 0;
  std::deque<Token> jobs_ GUARDED_BY(mutex_);
  std::set<std::pair<SteadyTime, Token>> alarms_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_REACTOR_H
