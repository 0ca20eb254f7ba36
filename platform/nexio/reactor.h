// An epoll instance and the threads that serve it: four, and more while callbacks take long.
//
// The process has two. One serves the channels that it has opened to peers of its choice, the other
// what comes to its servers, where anybody may connect: so strangers who keep a callback busy keep
// each other waiting, and nobody else.
//
// Every descriptor is registered one-shot: an event takes it out of the set, so exactly one thread
// works on it until that thread arms it again. The thread that epoll wakes does the reading and
// runs the callbacks itself; nothing is handed from a dispatcher to a worker.
//
// One more thread stands by. When none of the others has waited for events for the length of a
// turn, because all are in callbacks that take long, it joins them, and another one stands by; so
// one who asks for something big keeps nobody from being served but the other callers of the same
// channel. Those that are too many then end. There are at most 64.
//
// The threads start with the first channel or server, block all signals, and four live as long as
// the process. At exit, before the destructors of static objects, they are asked to stop and given
// a second to return from a running callback, so that none runs into an object that is gone.
//
// All memory that a thread needs to serve is taken when the thread starts or when a descriptor is
// added, where a shortage can be told to somebody.
#ifndef PLATFORM_NEXIO_REACTOR_H
#define PLATFORM_NEXIO_REACTOR_H

#include <sys/types.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

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
  friend auto operator<=>(const Token&, const Token&) = default;
};

enum class Wake { kReady, kAlarm };

class Reactor {
 public:
  // Called on the reactor's threads, with no lock of it held. `buffer` takes the longest packet and
  // is the thread's own.
  using Handler = void (*)(Token token, Wake why, std::span<std::byte> buffer);

  // The reactor of the channels that this process has opened, and that of its servers and their
  // clients.
  static Reactor& Opened();
  static Reactor& Accepted();

  // For the two above. `name` is that of the threads, but for their number.
  explicit Reactor(const char* name) : name_(name) {}

  // Makes the epoll set and starts the threads, if that hasn't happened. Yields 0 or a negative
  // errno, and can then be tried again.
  [[nodiscard]] int Start(Handler handler) EXCLUDES(mutex_);

  // Adds `fd`, armed, under a token of its own. Yields 0 or a negative errno.
  [[nodiscard]] int Watch(int fd, Token token) EXCLUDES(mutex_);
  // Lets the next readiness of `fd` through, once.
  void Arm(int fd, Token token) const;
  // Lets nothing through but a hang-up.
  void Disarm(int fd, Token token) const;
  // Takes `fd` out of the set, if it is there, with what was posted and set for its token. To be
  // called before it is closed: between a fork and the exec, a child's copy would keep it in the
  // set.
  void Forget(int fd, Token token) EXCLUDES(mutex_);

  // Has a thread call the handler for the token of a watched descriptor as if it were ready.
  void Post(Token token) noexcept EXCLUDES(mutex_);

  // Has a thread call the handler with Wake::kAlarm at `when`; for the token of a watched
  // descriptor, which has one alarm at most at a time.
  void SetAlarm(Token token, SteadyTime when) noexcept EXCLUDES(mutex_);
  void CancelAlarm(Token token) EXCLUDES(mutex_);

  // A thread that has served a token asks before it waits for more of the same, which spares the
  // way through epoll; false if too many do so already. They must be few enough that others find
  // a thread at once.
  [[nodiscard]] bool BeginLinger();
  void EndLinger() { --lingering_; }

 private:
  struct Alarm {
    SteadyTime when;
    Token token;
  };

  static void StopAll();
  // True if this process has threads of this reactor, now asked to stop.
  bool AskToStop() EXCLUDES(mutex_);
  void AwaitStop(SteadyTime deadline) EXCLUDES(mutex_);
  void ThreadBody(std::span<std::byte> buffer) noexcept;
  // Waits until there is work for one more thread, and has another one stand by; false at the end
  // of the process.
  [[nodiscard]] bool StandBy() EXCLUDES(mutex_);
  // Serve until the end of the process, or as long as they are needed.
  void ServeEvents(std::span<std::byte> buffer) EXCLUDES(mutex_);
  void ServeEvent(std::uint64_t event, std::span<std::byte> buffer) EXCLUDES(mutex_);
  // Tells the thread that stands by that no other waits for events.
  void CallStandBy() EXCLUDES(mutex_);
  void RunJob(std::span<std::byte> buffer) EXCLUDES(mutex_);
  void RunAlarms(std::span<std::byte> buffer) EXCLUDES(mutex_);
  [[nodiscard]] std::optional<Token> TakeDueAlarm() EXCLUDES(mutex_);
  // For the first alarm; there must be one.
  void SetTimer() REQUIRES(mutex_);
  [[nodiscard]] int MakeDescriptors() REQUIRES(mutex_);
  [[nodiscard]] int StartThreads() REQUIRES(mutex_);
  [[nodiscard]] int StartThread() REQUIRES(mutex_);

  const char* const name_;

  // Constant once Start has succeeded; started_ is stored behind them (release) and loaded ahead
  // (acquire).
  Handler handler_ = nullptr;
  pid_t owner_ = -1;
  UniqueFd epoll_;
  UniqueFd jobsReady_;  // A semaphore: one count for each job.
  UniqueFd timer_;

  std::atomic<bool> started_ = false;
  std::atomic<bool> stopping_ = false;
  std::atomic<int> lingering_ = 0;
  // Threads that wait for events, or are about to. The last one counts down and then looks at the
  // call; the thread that stands by takes the call back and then looks at the count. In one order
  // for all (seq_cst), so that one of them sees the other.
  std::atomic<int> waiting_ = 0;
  std::atomic<bool> isCalled_ = false;

  // A leaf: taken under the lock of a channel or of a server, never the other way.
  Mutex mutex_;
  CondVar threadGone_;
  CondVar called_;
  int threads_ GUARDED_BY(mutex_) = 0;
  int serving_ GUARDED_BY(mutex_) = 0;  // Of them; the others stand by.
  // Both have room for one entry of each watched descriptor.
  std::size_t watched_ GUARDED_BY(mutex_) = 0;
  std::vector<Token> jobs_ GUARDED_BY(mutex_);
  std::vector<Alarm> alarms_ GUARDED_BY(mutex_);  // The next one first.
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_REACTOR_H
